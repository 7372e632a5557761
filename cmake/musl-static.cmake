# Build for this machine's processor: each program is one file that needs no other, on any router with this processor.
set(TARNWICK_IS_STATIC ON)
include(${CMAKE_CURRENT_LIST_DIR}/musl.cmake)
