# Cross build for a 64-bit big-endian machine. Debian: g++-s390x-linux-gnu, and qemu-user-static to run its programs.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(CMAKE_CXX_COMPILER s390x-linux-gnu-g++)
set(CMAKE_C_COMPILER s390x-linux-gnu-gcc)

# The build runs this machine's programs, and takes libraries, headers and packages for the target only.
set(CMAKE_FIND_ROOT_PATH /usr/s390x-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-s390x-static -L /usr/s390x-linux-gnu)
