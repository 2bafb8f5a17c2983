# Cross build for the switch's processor: 32-bit big-endian PowerPC, Debian's powerpc-linux-gnu
# toolchain. Target programs run on the build machine under qemu user-mode emulation, which finds the
# target's loader and libraries under /usr/powerpc-linux-gnu.
set(FCADMIN_TARGET_TRIPLET powerpc-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR powerpc)
set(FCADMIN_OPENSSL_TARGET linux-ppc)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux-gnu.cmake)

set(FCADMIN_EMULATOR_SYSROOT /usr/powerpc-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-ppc -L ${FCADMIN_EMULATOR_SYSROOT})
# The test sandbox registers qemu-ppc for PowerPC executables in a binfmt_misc instance of its own, so
# programs the tests start (the test binary as a helper, the tool) run emulated as well.
set(FCADMIN_SANDBOX_BINFMT ppc)

# 64-bit atomic operations are library calls on this 32-bit target (libcrypto uses them, and so may any
# std::atomic<std::uint64_t>): every link takes libatomic.
set(CMAKE_C_STANDARD_LIBRARIES_INIT "-latomic")
set(CMAKE_CXX_STANDARD_LIBRARIES_INIT "-latomic")
