# Cross build for 32-bit MIPS, big-endian. Debian: g++-mips-linux-gnu, and qemu-user-static to run its programs.
set(CMAKE_SYSTEM_PROCESSOR mips)
set(triple mips-linux-gnu)
set(emulator qemu-mips-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake)
