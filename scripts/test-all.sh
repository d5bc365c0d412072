#!/usr/bin/env bash
# Sets up a fresh machine and runs every test: the release build's suite, then the quality
# gates found in scripts/gates/ (each one a script that exits non-zero on a finding). The
# benchmark is built with the suite so that it keeps compiling; it runs by its own command.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRFEVENT_BUILD_TESTS=ON \
    -DRFEVENT_BUILD_BENCHMARKS=ON >/dev/null
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" -j"$(nproc)" --output-on-failure --no-tests=error

if [ -d scripts/gates ] && [ -z "${RFEVENT_SKIP_GATES:-}" ]; then
    for gate in scripts/gates/*.sh; do
        [ -e "$gate" ] || continue
        echo "== gate: $gate"
        bash "$gate"
    done
fi
