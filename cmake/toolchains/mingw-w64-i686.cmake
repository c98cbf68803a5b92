# Cross-builds for Windows on 32-bit x86 with mingw-w64.
set(CMAKE_SYSTEM_PROCESSOR i686)
set(KMIO_MINGW_TRIPLET i686-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-common.cmake)
