# Cross build for the routers' processor, 32-bit MIPS, little-endian. Debian: g++-mipsel-linux-gnu, and
# qemu-user-static to run its programs.
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(triple mipsel-linux-gnu)
set(emulator qemu-mipsel-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake)
