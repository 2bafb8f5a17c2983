#!/bin/sh
# Builds libcrypto.a for a cross target from Debian's own openssl source package and installs it with its
# headers under PREFIX (lib/libcrypto.a, include/openssl/). Debian ships no libcrypto for powerpc, and
# the one of another architecture (libssl-dev:s390x, say) cannot be installed beside the machine's own
# unless both have the same version, which security updates break; so a cross build makes its own.
# Everything stays in the build tree (the unpacked source next to PREFIX) and a finished PREFIX is reused
# as it is.
#
# Usage: build-openssl.sh PREFIX CONFIGURE_TARGET TRIPLET
#   e.g. build-openssl.sh build/ppc/openssl linux-ppc powerpc-linux-gnu
# Needs root the first time on a machine: it adds a deb-src line for bookworm main in a file of its
# own under /etc/apt/sources.list.d and refreshes the package lists.
set -eu

usage="usage: build-openssl.sh PREFIX CONFIGURE_TARGET TRIPLET"
prefix=${1:?$usage}
target=${2:?$usage}
triplet=${3:?$usage}
mkdir -p "$prefix"
prefix=$(cd "$prefix" && pwd)
if [ -f "$prefix/lib/libcrypto.a" ] && [ -f "$prefix/include/openssl/opensslv.h" ]; then
    exit 0
fi
jobs=${JOBS:-$(nproc)}
work=$prefix.src
list=/etc/apt/sources.list.d/fcadmin-deb-src.list

# The mirror this machine already uses for bookworm main (one-line or deb822 sources) with the keyring
# it is signed with, as "URI [KEYRING]"; apt refuses a second entry for the same mirror and suite that
# names a different keyring.
mirror() {
    for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
        [ -f "$file" ] || continue
        awk '$1 == "deb" {
                 key = ""; uri = ""; suite = ""
                 for (i = 2; i <= NF; i++) {
                     if (match($i, /signed-by=[^] ]*/)) key = substr($i, RSTART + 10, RLENGTH - 10)
                     else if (uri == "" && $i ~ /^https?:/) uri = $i
                     else if (uri != "" && suite == "") suite = $i
                 }
                 if (suite == "bookworm") { print uri, key; exit }
             }' "$file"
    done
    for file in /etc/apt/sources.list.d/*.sources; do
        [ -f "$file" ] || continue
        awk 'BEGIN { RS = ""; FS = "\n" }
             /(^|\n)Suites:[^\n]*bookworm( |\n|$)/ && /(^|\n)Types:[^\n]*deb/ {
                 uri = ""; key = ""
                 for (i = 1; i <= NF; i++) {
                     split($i, f, " ")
                     if (f[1] == "URIs:") uri = f[2]
                     if (f[1] == "Signed-By:" && f[2] ~ /^\//) key = f[2]
                 }
                 print uri, key; exit
             }' "$file"
    done
    echo http://deb.debian.org/debian
}

if ! apt-cache showsrc openssl 2>/dev/null | grep -q '^Package: openssl'; then
    if [ "$(id -u)" != 0 ]; then
        echo "build-openssl.sh: openssl sources are not known to apt; as root, add a deb-src line for" >&2
        echo "bookworm main and run apt-get update (or run this script once as root)" >&2
        exit 1
    fi
    set -- $(mirror | grep -v security | head -n 1)
    line="deb-src ${2:+[signed-by=$2] }$1 bookworm main"
    if [ "$(cat "$list" 2>/dev/null)" != "$line" ]; then
        echo "$line" >"$list"
    fi
    # A line apt cannot use would break every later apt run on the machine: take it back then.
    apt-get update -q || { rm -f "$list"; echo "build-openssl.sh: apt-get update failed" >&2; exit 1; }
fi

rm -rf "$work"
mkdir -p "$work"
# The download runs as the caller; apt's sandbox user may not be able to write into the build tree.
(cd "$work" && apt-get source -q -o APT::Sandbox::User=root openssl)
src=$(find "$work" -mindepth 1 -maxdepth 1 -type d -name 'openssl-*' | head -n 1)
[ -n "$src" ] || { echo "build-openssl.sh: no openssl source unpacked in $work" >&2; exit 1; }

cd "$src"
# The logs stay next to the source; a failing step shows the end of its log.
step() {
    log=$1
    shift
    "$@" >"$log" 2>&1 || { tail -n 40 "$log" >&2; echo "build-openssl.sh: failed: $*" >&2; exit 1; }
}
step configure.log ./Configure "$target" no-shared no-tests --cross-compile-prefix="$triplet-"
step generate.log make build_generated
step build.log make -j "$jobs" libcrypto.a

mkdir -p "$prefix/lib" "$prefix/include"
rm -rf "$prefix/include/openssl"
cp -R include/openssl "$prefix/include/"
cp libcrypto.a "$prefix/lib/libcrypto.a.tmp"
mv "$prefix/lib/libcrypto.a.tmp" "$prefix/lib/libcrypto.a"
echo "libcrypto for $triplet: $prefix/lib/libcrypto.a"
