# Cross build for a 64-bit big-endian machine. Debian: g++-s390x-linux-gnu, and qemu-user-static to run its programs.
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(triple s390x-linux-gnu)
set(emulator qemu-s390x-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake)
