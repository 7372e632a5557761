# Build for this machine's processor and musl, the C library of most routers. Debian: musl-tools, and g++ for its C++
# headers, of which the programs use only what needs no C++ run-time library.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${CMAKE_HOST_SYSTEM_PROCESSOR})
# Not g++: it would link the C++ run-time library, which is made for another C library.
set(CMAKE_CXX_COMPILER gcc)
set(CMAKE_C_COMPILER gcc)

execute_process(COMMAND gcc -print-multiarch OUTPUT_VARIABLE gnu_name OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND gcc -dumpversion OUTPUT_VARIABLE gcc_version OUTPUT_STRIP_TRAILING_WHITESPACE)
string(REPLACE gnu musl musl_name "${gnu_name}")

# musl's headers are the only ones of a C library that are seen: of /usr/include no more than the kernel's.
set(kernel_headers ${CMAKE_BINARY_DIR}/kernel-headers)
file(MAKE_DIRECTORY ${kernel_headers})
file(CREATE_LINK /usr/include/linux ${kernel_headers}/linux SYMBOLIC)
file(CREATE_LINK /usr/include/asm-generic ${kernel_headers}/asm-generic SYMBOLIC)
file(CREATE_LINK /usr/include/${gnu_name}/asm ${kernel_headers}/asm SYMBOLIC)

set(musl_options -specs=/usr/lib/${musl_name}/musl-gcc.specs)
if(TARNWICK_IS_STATIC)
  # A static program that is loaded anywhere all the same, which musl-gcc.specs has no word for.
  file(WRITE ${CMAKE_BINARY_DIR}/static.specs
    "*startfile:\n/usr/lib/${musl_name}/rcrt1.o /usr/lib/${musl_name}/crti.o crtbeginS.o%s\n\n"
    "*link:\n-nostdlib -static -pie --no-dynamic-linker -z text\n\n")
  list(APPEND musl_options -specs=${CMAKE_BINARY_DIR}/static.specs)
endif()
string(JOIN " " CMAKE_C_FLAGS_INIT ${musl_options} -idirafter ${kernel_headers})
# The C++ headers ask for the version of the other C library by a macro that musl has not.
string(JOIN " " CMAKE_CXX_FLAGS_INIT ${musl_options} -nostdinc++ "\"-D__GLIBC_PREREQ(major,minor)=0\""
  -isystem /usr/include/c++/${gcc_version}
  -isystem /usr/include/${gnu_name}/c++/${gcc_version}
  -idirafter ${kernel_headers})

# Nothing that this machine has for its own C library.
set(CMAKE_FIND_ROOT_PATH /usr/lib/${musl_name})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
