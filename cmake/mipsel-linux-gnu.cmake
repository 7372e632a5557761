# Cross build for the routers' processor, 32-bit MIPS, little-endian. Debian: g++-mipsel-linux-gnu, and
# qemu-user-static to run its programs.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)
set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)

# The build runs this machine's programs, and takes libraries, headers and packages for the target only.
set(CMAKE_FIND_ROOT_PATH /usr/mipsel-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mipsel-static -L /usr/mipsel-linux-gnu)
