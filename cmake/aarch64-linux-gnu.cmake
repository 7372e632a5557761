# Cross build for 64-bit ARM. Debian: g++-aarch64-linux-gnu, and qemu-user-static to run its programs.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(triple aarch64-linux-gnu)
set(emulator qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake)
