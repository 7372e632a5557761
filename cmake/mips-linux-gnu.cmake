# Cross build for 32-bit MIPS, big-endian. Debian: g++-mips-linux-gnu, and qemu-user-static to run its programs.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)
set(CMAKE_CXX_COMPILER mips-linux-gnu-g++)
set(CMAKE_C_COMPILER mips-linux-gnu-gcc)

# The build runs this machine's programs, and takes libraries, headers and packages for the target only.
set(CMAKE_FIND_ROOT_PATH /usr/mips-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mips-static -L /usr/mips-linux-gnu)
