# Cross build for the switch's processor: 32-bit big-endian PowerPC, Debian's powerpc-linux-gnu
# toolchain. Target programs run on the build machine under qemu user-mode emulation, which finds the
# target's loader and libraries under /usr/powerpc-linux-gnu.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR powerpc)

set(CMAKE_C_COMPILER powerpc-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)

set(FCADMIN_EMULATOR_SYSROOT /usr/powerpc-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-ppc -L ${FCADMIN_EMULATOR_SYSROOT})
# The test sandbox registers qemu-ppc for PowerPC executables in a binfmt_misc instance of its own, so
# programs the tests start (the test binary as a helper, the tool) run emulated as well.
set(FCADMIN_SANDBOX_BINFMT ppc)

# Headers and libraries come from the target's tree only (plus whatever the build adds to
# CMAKE_FIND_ROOT_PATH, such as the libcrypto built for this target); programs run on the build machine.
list(APPEND CMAKE_FIND_ROOT_PATH /usr/powerpc-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# 64-bit atomic operations are library calls on this 32-bit target (libcrypto uses them, and so may any
# std::atomic<std::uint64_t>): every link takes libatomic.
set(CMAKE_C_STANDARD_LIBRARIES_INIT "-latomic")
set(CMAKE_CXX_STANDARD_LIBRARIES_INIT "-latomic")
