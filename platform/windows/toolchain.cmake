# Cross-building for 64-bit Windows with clang and lld, over the mingw-w64 headers and libraries and the C++ library that
# comes with its g++.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

file(GLOB gccFolders /usr/lib/gcc/x86_64-w64-mingw32/*-posix)
if(NOT gccFolders)
  message(FATAL_ERROR "The C++ library for Windows is missing: install g++-mingw-w64-x86-64-posix")
endif()
list(SORT gccFolders COMPARE NATURAL ORDER DESCENDING)
list(GET gccFolders 0 gccFolder)

set(CMAKE_C_COMPILER clang)
set(CMAKE_C_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_CXX_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
set(CMAKE_AR llvm-ar)
set(CMAKE_RANLIB llvm-ranlib)

set(CMAKE_CXX_FLAGS_INIT
  "-fms-extensions -nostdinc++ -isystem ${gccFolder}/include/c++ -isystem ${gccFolder}/include/c++/x86_64-w64-mingw32")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld -static -L${gccFolder} -Wno-unused-command-line-argument")

set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
