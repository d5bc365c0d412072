#!/usr/bin/env bash
# Sets up a fresh machine, builds the plug-in and the host simulator, and runs the demo.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRFEVENT_BUILD_TOOLS=ON >/dev/null
cmake --build "$build" -j"$(nproc)"
exec "$build/tools/rfevent-sim" --plugin "$build/src/libredfishevent.so" demo "$@"
