# install_pkgconfig(NAME LIBRARY DESCRIPTION): has the pkg-config file NAME.pc installed, by which others compile and
# link against LIBRARY. The prefix is where the file is found, whatever it was when the build was configured.
function(install_pkgconfig name library description)
    file(RELATIVE_PATH to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
    configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in ${name}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
