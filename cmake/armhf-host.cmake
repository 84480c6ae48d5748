# The host kit for 32-bit ARM with Debian's libraries; programs run under qemu-user.
set(debian_architecture armhf)
set(compiler arm-linux-gnueabihf)
set(multiarch arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${CMAKE_SYSROOT})
