# What both mingw-w64 cross-builds for Windows share; the toolchain file of
# each width sets CMAKE_SYSTEM_PROCESSOR and KMIO_MINGW_TRIPLET, then includes
# this. The posix thread model is the one whose std::thread and std::mutex
# work; the C++ runtime, libgcc and winpthread are linked statically so that
# kmio.dll and the tools need nothing beside the system's own DLLs.
set(CMAKE_SYSTEM_NAME Windows)

set(CMAKE_C_COMPILER ${KMIO_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${KMIO_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${KMIO_MINGW_TRIPLET}-windres)
set(CMAKE_OBJDUMP ${KMIO_MINGW_TRIPLET}-objdump)

set(CMAKE_FIND_ROOT_PATH /usr/${KMIO_MINGW_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")

# Test programs run under Wine on the build machine.
find_program(KMIO_WINE wine)
if(KMIO_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${KMIO_WINE})
endif()
