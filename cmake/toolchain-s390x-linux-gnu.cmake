# Cross build for a 64-bit big-endian target: IBM Z (s390x), Debian's s390x-linux-gnu toolchain. Target
# programs run on the build machine under qemu user-mode emulation, which finds the target's loader and
# libraries under /usr/s390x-linux-gnu.
set(FCADMIN_TARGET_TRIPLET s390x-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(FCADMIN_OPENSSL_TARGET linux64-s390x)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux-gnu.cmake)

set(FCADMIN_EMULATOR_SYSROOT /usr/s390x-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-s390x -L ${FCADMIN_EMULATOR_SYSROOT})
set(FCADMIN_SANDBOX_BINFMT s390x)

# Debian ships GoogleTest for s390x (libgtest-dev:s390x, a multiarch package: static libraries under
# /usr/lib/s390x-linux-gnu); without it the tests build GoogleTest from its sources instead.
if(EXISTS /usr/lib/s390x-linux-gnu/cmake/GTest/GTestConfig.cmake)
  set(GTest_DIR /usr/lib/s390x-linux-gnu/cmake/GTest)
endif()
