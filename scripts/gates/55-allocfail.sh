#!/usr/bin/env bash
# Allocation failures: the allocation-failure host loads the plug-in with the shim preloaded and
# sends alerts and metric reports to a mutual-TLS destination while one allocation in N fails on
# the plug-in's threads and on the alert caller's thread; then, with failures off, more of both,
# every one of which must arrive. A host that dies (abort, crash) or deliveries that do not
# resume fail the gate. Each run uses other failure rates and seeds (RFEVENT_ALLOCFAIL_RATES,
# RFEVENT_ALLOCFAIL_SEEDS change them). Reuses the build of scripts/test-all.sh (BUILD_DIR,
# default build/), building what it needs first.
source "$(dirname "$0")/_common.bash"
scripts/install-deps.sh
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRFEVENT_BUILD_TESTS=ON \
    -DRFEVENT_BUILD_BENCHMARKS=ON >/dev/null
cmake --build "$build" -j"$jobs" --target redfishevent allocfail rfevent_allocfail_host
shim=$build/tests/allocfail/liballocfail.so
host=$build/tests/allocfail/rfevent_allocfail_host
plugin=$build/src/libredfishevent.so

failed=0
for rate in ${RFEVENT_ALLOCFAIL_RATES:-300 1000 3000}; do
    for seed in ${RFEVENT_ALLOCFAIL_SEEDS:-1 2}; do
        echo "== one allocation in $rate fails, seed $seed"
        status=0
        LD_PRELOAD=$shim timeout 60 "$host" "$plugin" "$rate" "$seed" || status=$?
        if [ "$status" -ne 0 ]; then
            echo "allocation-failure run (1 in $rate, seed $seed) failed with status $status"
            failed=1
        fi
    done
done
[ "$failed" -eq 0 ]
gate_done
