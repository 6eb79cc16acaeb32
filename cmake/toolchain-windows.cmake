# What the two Windows toolchains share. They set `triple` and include this.
# Debian's mingw-w64 compilers; the "posix" variant is the one that has std::thread.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_CXX_COMPILER ${triple}-g++-posix)
set(CMAKE_C_COMPILER ${triple}-gcc-posix)
set(CMAKE_RC_COMPILER ${triple}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${triple})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The compiler's runtime goes into each program and module: the Windows machine has none.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")
