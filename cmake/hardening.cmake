# What makes a memory error in a root daemon on the network harder to use; tests/lint/test_built_programs.py reads the
# built files. Each flag only where compiler and processor know it.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)

target_compile_options(tarnwick_options INTERFACE -fPIE)
target_link_options(tarnwick_options INTERFACE -pie -Wl,-z,now -Wl,-z,noexecstack)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^mips")
  # It would cover 188 bytes, not the table of functions, and pad each file to a page of 64 KiB.
  target_link_options(tarnwick_options INTERFACE -Wl,-z,norelro)
else()
  target_link_options(tarnwick_options INTERFACE -Wl,-z,relro)
endif()

check_cxx_compiler_flag(-fcf-protection TARNWICK_HAS_CF_PROTECTION)
if(TARNWICK_HAS_CF_PROTECTION)
  target_compile_options(tarnwick_options INTERFACE -fcf-protection)
endif()

# The C library has to support it, which only linking something protected shows.
set(CMAKE_REQUIRED_FLAGS -fstack-protector-all)
check_cxx_source_compiles("int main() { return 0; }" TARNWICK_HAS_STACK_PROTECTOR)
unset(CMAKE_REQUIRED_FLAGS)
if(TARNWICK_HAS_STACK_PROTECTOR)
  target_compile_options(tarnwick_options INTERFACE -fstack-protector-strong)
endif()

# Fortified calls have names of their own (__read_chk), which the tests' scripted kernel does not wrap.
if(NOT TARNWICK_BUILD_TESTS AND NOT TARNWICK_SANITIZE)
  target_compile_options(tarnwick_options INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
endif()
