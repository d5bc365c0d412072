#!/usr/bin/env bash
# Sets up a fresh machine, builds the plug-in (x86-64, and armhf for its size) and the
# benchmark, and prints the table: each case's plug-in figure, floor figure and ratio.
# Arguments go to rfevent-bench (e.g. --quick, --only alerts,sse).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh valgrind armhf
build=${BUILD_DIR:-build-bench}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DRFEVENT_BUILD_BENCHMARKS=ON \
    -DRFEVENT_BUILD_TESTS=OFF -DRFEVENT_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target rfevent-bench
# The armhf plug-in is only measured for its size.
cmake -S . -B "$build/armhf" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchain-armhf.cmake" \
    -DCMAKE_BUILD_TYPE=Release -DRFEVENT_BUILD_TESTS=OFF -DRFEVENT_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build/armhf" -j"$(nproc)" --target redfishevent
exec "$build/bench/rfevent-bench" --armhf-plugin "$build/armhf/src/libredfishevent.so" "$@"
