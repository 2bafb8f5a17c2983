#!/bin/bash
# Configures and builds each CMake preset named (all of ours are strict: FCADMIN_WERROR), then fails when
# any of them failed or printed a warning. A compiler warning already stops its build; the log check also
# catches what -Werror does not turn into an error: the linker's warnings and CMake's. Every preset is
# tried, and the summary names those that failed; the logs stay in build/logs/PRESET.log.
#
# Usage: check-warnings.sh PRESET...    (JOBS=N sets the build's parallel jobs, default: nproc)
set -uo pipefail
cd "$(dirname "$0")/.."

jobs=${JOBS:-$(nproc)}
mkdir -p build/logs
failed=()
for preset in "$@"; do
    log=build/logs/$preset.log
    echo "== $preset"
    start=$SECONDS
    # The configure step may print the output of the libcrypto build script, whose tools say "warning:" of
    # things that are not ours; from it only CMake's own warnings count.
    cmake --preset "$preset" 2>&1 | tee "$log"
    if [ "${PIPESTATUS[0]}" != 0 ]; then
        failed+=("$preset (configure failed)")
        continue
    fi
    warnings=$(grep -c 'CMake Warning' "$log")
    cmake --build --preset "$preset" -j "$jobs" 2>&1 | tee "$log.build"
    status=${PIPESTATUS[0]}
    warnings=$((warnings + $(grep -Eci 'CMake Warning|warning:' "$log.build")))
    cat "$log.build" >>"$log"
    rm -f "$log.build"
    echo "== $preset: build status $status, $warnings warning lines, $((SECONDS - start)) s"
    if [ "$status" != 0 ]; then
        failed+=("$preset (build failed)")
    elif [ "$warnings" != 0 ]; then
        failed+=("$preset ($warnings warning lines)")
    fi
done

if [ ${#failed[@]} != 0 ]; then
    printf 'check-warnings: %s\n' "${failed[@]}" >&2
    exit 1
fi
echo "check-warnings: no warning in $*"
