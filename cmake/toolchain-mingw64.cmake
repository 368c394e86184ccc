# Cross-compiles for Windows x64 with mingw-w64; tests run under Wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(OSTREL_MINGW_TRIPLE x86_64-w64-mingw32)
# The -posix variants: the win32-thread ones lack std::thread and std::mutex.
set(CMAKE_C_COMPILER ${OSTREL_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${OSTREL_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${OSTREL_MINGW_TRIPLE}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${OSTREL_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# A prefix of our own inside the build tree, so that Wine never touches ~/.wine.
set(CMAKE_CROSSCOMPILING_EMULATOR
    "${CMAKE_CURRENT_LIST_DIR}/wine-run.sh;${CMAKE_BINARY_DIR}/wineprefix")
