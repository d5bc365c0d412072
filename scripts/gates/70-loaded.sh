#!/usr/bin/env bash
# The release build's suite three times in a row while a load generator keeps every core busy:
# a test that passes on an idle machine but fails on a busy one fails here. (The armhf gate runs
# its suite under qemu-arm under the same load.) Reuses the build of scripts/test-all.sh
# (BUILD_DIR, default build/), building it first when run on its own.
source "$(dirname "$0")/_common.bash"
scripts/install-deps.sh load
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRFEVENT_BUILD_BENCHMARKS=ON \
    >/dev/null
cmake --build "$build" -j"$jobs"
start_load
for run in 1 2 3; do
    run_started=$SECONDS
    ctest --test-dir "$build" -j"$jobs" --output-on-failure --no-tests=error
    echo "loaded run $run of 3 passed in $((SECONDS - run_started)) s"
done
stop_load
gate_done
