#!/bin/sh
# The demonstration: the fcadmin tool at work over every service, in a sandbox.
set -eu
build=${1:-build/default}
tool="$build/bin/fcadmin"
here=$(cd "$(dirname "$0")/.." && pwd)
exec "$here/tests/support/sandbox.sh" sh "$here/tools/demo_steps.sh" "$tool"
