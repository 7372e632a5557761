# Cross build for 32-bit ARM with hardware floating point. Debian: g++-arm-linux-gnueabihf, and qemu-user-static to run
# its programs.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(triple arm-linux-gnueabihf)
set(emulator qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake)
