# Cross toolchain: 64-bit Windows through mingw-w64 (posix thread model).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(ZENDRA_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${ZENDRA_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ZENDRA_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${ZENDRA_TRIPLE}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${ZENDRA_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# Programs run under Wine: through the source tree's wrapper (with the
# build's own prefix) when there is one, else through plain wine, as from the
# copy of this file installed with the package.
if(EXISTS ${CMAKE_CURRENT_LIST_DIR}/../tools/wine-run.sh)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../tools/wine-run.sh)
else()
  set(CMAKE_CROSSCOMPILING_EMULATOR wine)
endif()
