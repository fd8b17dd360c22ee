# Cross-compiles for 64-bit Windows with Debian's mingw-w64 (g++-mingw-w64-x86-64-posix). The
# -posix compilers are the ones whose libstdc++ has std::thread and std::mutex (on winpthreads);
# the -win32 ones lack them.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(TRI_MINGW_TRIPLET x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${TRI_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TRI_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${TRI_MINGW_TRIPLET}-windres)

# Headers, libraries and packages come from the mingw sysroot and from the prefixes given in
# CMAKE_PREFIX_PATH (such as the cross-built cpprestsdk), never from the Linux host, which has
# Linux builds of the same packages; programs run during the build are the host's. The prefixes
# are roots too: otherwise CMake would look for them beneath the sysroot.
set(CMAKE_FIND_ROOT_PATH /usr/${TRI_MINGW_TRIPLET} ${CMAKE_PREFIX_PATH})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
