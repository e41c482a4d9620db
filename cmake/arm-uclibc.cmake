# The board: Cortex-A7 and uClibc, static, by Debian's cross compiler and the sysroot of rigs/board/prepare (which is
# built here when it is missing, some minutes).
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/arm-uclibc.cmake [-DARM_FLOAT_ABI=softfp] ...
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(ARM_FLOAT_ABI hard CACHE STRING "hard or softfp: as the chip vendor's media library was built")
set(triple arm-linux-gnueabihf)
if(NOT ARM_FLOAT_ABI STREQUAL "hard")
  set(triple arm-linux-gnueabi)
endif()
set(CMAKE_C_COMPILER ${triple}-gcc)
set(CMAKE_CXX_COMPILER ${triple}-g++)

set(arm_tools ${CMAKE_CURRENT_LIST_DIR}/../rigs/board)
if(NOT UCLIBC_SYSROOT)
  execute_process(COMMAND ${arm_tools}/prepare ${ARM_FLOAT_ABI} OUTPUT_VARIABLE UCLIBC_SYSROOT
    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ARM_FLOAT_ABI UCLIBC_SYSROOT)
set(CMAKE_SYSROOT ${UCLIBC_SYSROOT})

string(CONCAT board_flags "-muclibc -specs=${arm_tools}/uclibc.specs -mcpu=cortex-a7 -mfpu=neon-vfpv4 "
  "-mfloat-abi=${ARM_FLOAT_ABI} -D_FILE_OFFSET_BITS=64 -ffunction-sections -fdata-sections")
string(APPEND board_flags " -fno-pie")  # a static program is not moved, whatever the compiler's default
set(CMAKE_C_FLAGS_INIT "${board_flags}")
set(CMAKE_CXX_FLAGS_INIT "${board_flags}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -Wl,--gc-sections")
set_property(GLOBAL PROPERTY TARGET_SUPPORTS_SHARED_LIBS FALSE)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -cpu cortex-a7)
