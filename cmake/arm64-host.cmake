# The host kit for 64-bit ARM with Debian's libraries.
set(debian_architecture arm64)
set(compiler aarch64-linux-gnu)
set(multiarch aarch64-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L ${CMAKE_SYSROOT}) # to write headers while it builds
