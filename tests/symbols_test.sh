#!/bin/sh
# The shared library exports exactly the names that the exported header declares, nothing more.
# Usage: symbols_test.sh fcadmin.h libfcadmin.so (NM in the environment names the nm for the library's
# target; nm by default)
set -eu
header=$1 library=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# Declarations in the header carry FCADMIN_API: the name is the identifier before "(" or "[" or ";".
grep 'FCADMIN_API' "$header" | grep -v '#define' |
    sed -E 's/\(.*//; s/\[.*//; s/;.*//; s/.*[ *]([A-Za-z_][A-Za-z0-9_]*)[[:space:]]*$/\1/' |
    sort -u >"$tmp/header"
# AddressSanitizer adds one ODR indicator (__odr_asan.NAME) per exported variable; it is
# instrumentation, not interface.
${NM:-nm} -D --defined-only "$library" | awk '{print $3}' | grep -v -E '^(_init|_fini|_edata|_end|__bss_start|__odr_asan[._].*)$' |
    sed 's/@.*//' | sort -u >"$tmp/library"

if ! diff -u "$tmp/header" "$tmp/library"; then
    echo "FAIL: exported names differ from the header (- header only, + library only)"
    exit 1
fi
echo "exports match the header: $(wc -l <"$tmp/header") names"
