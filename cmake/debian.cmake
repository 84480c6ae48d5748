# Toolchain files of one of Debian's other architectures include this. They set debian_architecture, by Debian's name;
# compiler, the prefix of Debian's cross compiler's programs; multiarch, the name of the folder with libraries; and what
# else is theirs. Libraries are found in the folder that cmake/sysroot.sh makes, and nowhere else.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${compiler}-gcc)
set(CMAKE_CXX_COMPILER ${compiler}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${multiarch})
get_filename_component(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${debian_architecture} ABSOLUTE)
if(NOT EXISTS ${CMAKE_SYSROOT}/made-of)
    message(FATAL_ERROR "${CMAKE_SYSROOT} has no libraries; run cmake/sysroot.sh ${debian_architecture}")
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/${multiarch}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
