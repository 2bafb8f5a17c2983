#!/bin/sh
# The steps of the demonstration, run inside the sandbox: each file of tools/demo/ shows one service.
set -eu
tool=$1
here=$(cd "$(dirname "$0")" && pwd)
step() { printf '\n== %s\n' "$*"; }
for part in "$here"/demo/*.sh; do
    . "$part"
done
