# Cross-compiles the 64-bit Windows module with Debian's clang (clang-14) for the mingw-w64 target,
# against the same headers and libraries as the gcc build (mingw-w64's runtime, gcc 12's posix
# libstdc++), linked by mingw-w64's linker.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(_triplet x86_64-w64-mingw32)
set(_gcc_dir /usr/lib/gcc/${_triplet}/12-posix)
set(CMAKE_C_COMPILER clang-14)
set(CMAKE_CXX_COMPILER clang++-14)
set(CMAKE_C_COMPILER_TARGET ${_triplet})
set(CMAKE_CXX_COMPILER_TARGET ${_triplet})
set(CMAKE_RC_COMPILER ${_triplet}-windres)

# clang knows where mingw-w64 keeps its C headers, not which libstdc++ Debian's gcc brings.
set(CMAKE_CXX_FLAGS_INIT "-isystem ${_gcc_dir}/include/c++ -isystem ${_gcc_dir}/include/c++/${_triplet}")
# Its libraries, and the posix threads that this libstdc++ is built on (gcc's driver adds them by
# itself). LLVM's linker: mingw-w64's reports each type name that clang and gcc lay out apart.
foreach(_kind EXE SHARED MODULE)
    set(CMAKE_${_kind}_LINKER_FLAGS_INIT "-L${_gcc_dir} -pthread -fuse-ld=lld")
endforeach()

set(CMAKE_FIND_ROOT_PATH /usr/${_triplet})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
