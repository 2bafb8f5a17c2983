# Cross build for a 32-bit little-endian target: x86 (i686), Debian's i686-linux-gnu toolchain. An
# x86-64 machine runs the target's programs natively, with Debian's 32-bit runtime packages (libc6-i386,
# lib32stdc++6): no emulator.
set(FCADMIN_TARGET_TRIPLET i686-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(FCADMIN_OPENSSL_TARGET linux-x86)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux-gnu.cmake)
