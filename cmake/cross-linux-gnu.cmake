# What every cross toolchain of the project shares: Debian's TRIPLET-gcc/g++ cross compilers, headers and
# libraries from the target's tree only (plus whatever the toolchain file or the build adds to
# CMAKE_FIND_ROOT_PATH, such as the libcrypto built for the target), programs from the build machine.
# The including toolchain file sets FCADMIN_TARGET_TRIPLET, CMAKE_SYSTEM_PROCESSOR and
# FCADMIN_OPENSSL_TARGET (the target's name for OpenSSL's Configure, used by cmake/build-openssl.sh).
set(CMAKE_SYSTEM_NAME Linux)

set(CMAKE_C_COMPILER ${FCADMIN_TARGET_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${FCADMIN_TARGET_TRIPLET}-g++)

list(APPEND CMAKE_FIND_ROOT_PATH /usr/${FCADMIN_TARGET_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
