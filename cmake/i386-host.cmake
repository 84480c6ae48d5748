# The host kit for i386 with Debian's libraries; programs run natively, on the loader and the libraries that they were
# linked with.
set(debian_architecture i386)
set(compiler i686-linux-gnu)
set(multiarch i386-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR i686)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
set(loaded ${CMAKE_SYSROOT}/lib/${multiarch})
# As RPATH, which holds for what the libraries need as well, unless one has a RUNPATH.
string(JOIN , CMAKE_EXE_LINKER_FLAGS_INIT -Wl --dynamic-linker=${loaded}/ld-linux.so.2 --disable-new-dtags
    -rpath ${loaded}:${CMAKE_SYSROOT}/usr/lib/${multiarch})
set(CMAKE_SHARED_LINKER_FLAGS_INIT -Wl,--disable-new-dtags)
# Its programs run here as they are.
set(CMAKE_CROSSCOMPILING_EMULATOR env)
