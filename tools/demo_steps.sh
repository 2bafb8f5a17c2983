#!/bin/sh
# The steps of the demonstration, run inside the sandbox: each shows one service.
set -eu
tool=$1
step() { printf '\n== %s\n' "$*"; }

step "fcadmin --help"
"$tool" --help
step "fcadmin bits -1; fcadmin endian"
"$tool" bits -1 || true
"$tool" endian || true
