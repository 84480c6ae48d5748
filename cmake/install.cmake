# What is installed, in components: runtime, what programs of others load; development, what they are built with; host,
# the host kit's programs; host_runtime, the libraries of those; agent, what applications load to have an agent; python,
# the module for Python; relay and web, tarn-relay and tarn-web. Everything finds the rest from where it lies, whatever
# prefix it was configured for.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tarn_sysdiag)
# Until 1.0 a new minor version may change what programs are built with.
set(soversion ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
file(RELATIVE_PATH bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})

# install_library(LIBRARY PART part [COMPONENT component] [UNVERSIONED]): for others to link against, as a target in the
# file tarn_PART-targets.cmake.
function(install_library library)
    cmake_parse_arguments(arg "UNVERSIONED" "PART;COMPONENT" "" COMPONENT development ${ARGN})
    get_target_property(type ${library} TYPE)
    if(type STREQUAL SHARED_LIBRARY AND NOT arg_UNVERSIONED)
        set_target_properties(${library} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${soversion})
    endif()
    if(arg_COMPONENT MATCHES "host|agent") # the others need none of ours
        set_property(TARGET ${library} PROPERTY INSTALL_RPATH $ORIGIN)
    endif()
    if(TARN_INSTALL)
        install(TARGETS ${library} EXPORT tarn_${arg_PART}
            LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${arg_COMPONENT} NAMELINK_COMPONENT development
            ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
    endif()
endfunction()

# install_program(PROGRAM [COMPONENT component]): into bin; of the component host, if no other.
function(install_program program)
    cmake_parse_arguments(arg "" "COMPONENT" "" COMPONENT host ${ARGN})
    set_property(TARGET ${program} PROPERTY INSTALL_RPATH $ORIGIN/${bin_to_lib})
    if(TARN_INSTALL)
        install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${arg_COMPONENT})
    endif()
endfunction()

# install_manual(PAGE [COMPONENT component]): of man/; of the component host, if no other.
function(install_manual page)
    cmake_parse_arguments(arg "" "COMPONENT" "" COMPONENT host ${ARGN})
    string(REGEX MATCH "[0-9]$" section ${page})
    if(TARN_INSTALL)
        install(FILES ${PROJECT_SOURCE_DIR}/man/${page}
            DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${arg_COMPONENT})
    endif()
endfunction()

# install_headers(FILES file... | DIRECTORY directory): as tarn_sysdiag/...
function(install_headers kind)
    if(TARN_INSTALL)
        install(${kind} ${ARGN} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarn_sysdiag COMPONENT development)
    endif()
endfunction()

# install_data(what install() takes [COMPONENT component]): of the component host, if no other.
function(install_data)
    cmake_parse_arguments(arg "" "COMPONENT" "" COMPONENT host ${ARGN})
    if(TARN_INSTALL)
        install(${arg_UNPARSED_ARGUMENTS} COMPONENT ${arg_COMPONENT})
    endif()
endfunction()

# install_pkgconfig(NAME LIBRARY DESCRIPTION): the pkg-config file NAME.pc, by which others compile and link against
# LIBRARY.
function(install_pkgconfig name library description)
    if(TARN_INSTALL)
        file(RELATIVE_PATH to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
        configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in ${name}.pc @ONLY)
        install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
    endif()
endfunction()

# The package that find_package(tarn_sysdiag) finds: a file of targets for each part that was built.
function(install_package)
    set(parts sysdiag)
    if(TARN_HOST_KIT)
        list(APPEND parts host agent)
    endif()
    foreach(part ${parts})
        install(EXPORT tarn_${part} NAMESPACE tarn:: FILE tarn_${part}-targets.cmake
            DESTINATION ${package_dir} COMPONENT development)
    endforeach()
    configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/tarn_sysdiag-config.cmake.in
        ${PROJECT_BINARY_DIR}/tarn_sysdiag-config.cmake
        INSTALL_DESTINATION ${package_dir} PATH_VARS CMAKE_INSTALL_LIBDIR)
    write_basic_package_version_file(${PROJECT_BINARY_DIR}/tarn_sysdiag-config-version.cmake
        COMPATIBILITY SameMinorVersion)
    install(FILES
        ${PROJECT_BINARY_DIR}/tarn_sysdiag-config.cmake ${PROJECT_BINARY_DIR}/tarn_sysdiag-config-version.cmake
        DESTINATION ${package_dir} COMPONENT development)
endfunction()
