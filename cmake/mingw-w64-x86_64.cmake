# Cross-build for Windows x86-64 with Debian's mingw-w64 (posix thread model, so that std::thread
# and std::mutex work). Tests run through wine; see .ci/wine-env for the headless prefix.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(ORQ_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${ORQ_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ORQ_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${ORQ_MINGW_TRIPLE}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${ORQ_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# wine64 is not on PATH in Debian; ctest runs each .exe through it.
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/lib/wine/wine64)
