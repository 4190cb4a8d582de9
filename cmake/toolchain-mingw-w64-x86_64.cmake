# Cross-compiles the 64-bit Windows module with Debian's mingw-w64 (posix threads flavour).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(_triplet x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${_triplet}-gcc-posix)
set(CMAKE_CXX_COMPILER ${_triplet}-g++-posix)
set(CMAKE_RC_COMPILER ${_triplet}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${_triplet})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
