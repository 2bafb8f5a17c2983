#!/bin/sh
# Installs the library into a prefix under the build tree, builds the example program from the
# install tree alone (once through the CMake package, once through pkg-config) and runs both; then
# checks the tool, its manual pages and its completion there.
# Usage: sh examples/run.sh BUILD_DIR
set -eu
build=$(cd "${1:-build/default}" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
work=$build/examples
prefix=$work/prefix
cc=${CC:-cc}

rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$prefix" >/dev/null
echo "installed into $prefix"
printf 123456789 >"$work/digits"

# Nothing of the source or build tree may leak in: the package is looked for under the prefix only.
cmake -S "$here/cmake" -B "$work/cmake" -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF -DCMAKE_C_COMPILER="$cc" >/dev/null
cmake --build "$work/cmake" >/dev/null
echo "== find_package(fcadmin CONFIG)"
"$work/cmake/check_install_cmake" "$work/digits"

pc=$(find "$prefix" -name fcadmin.pc)
PKG_CONFIG_PATH=$(dirname "$pc")
export PKG_CONFIG_PATH
# shellcheck disable=SC2046 # pkg-config's output is meant to be split into words
"$cc" -std=c99 -D_POSIX_C_SOURCE=200809L -Wall -Wextra -pedantic -Werror $(pkg-config --cflags fcadmin) \
    "$here/check_install.c" -o "$work/check_install_pkgconfig" $(pkg-config --libs fcadmin) \
    -Wl,-rpath,"$(pkg-config --variable=libdir fcadmin)"
echo "== pkg-config fcadmin"
"$work/check_install_pkgconfig" "$work/digits"
echo "both examples pass"

# The tool's own files under the prefix: it runs, man finds both pages, bash-completion finds its file.
"$prefix/bin/fcadmin" --version
MANPATH="$prefix/share/man" man -w 1 fcadmin >/dev/null
MANPATH="$prefix/share/man" man -w 3 fcadmin >/dev/null
test -s "$prefix/share/bash-completion/completions/fcadmin"
echo "the tool, its manual pages and its completion are installed"
