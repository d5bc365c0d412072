#!/usr/bin/env bash
# The whole suite built with ThreadSanitizer; any data race or lock-order report fails the test.
source "$(dirname "$0")/_common.bash"
scripts/install-deps.sh
build_preset tsan
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
ctest --test-dir "$gate_build/tsan" -j"$jobs" --output-on-failure --no-tests=error
gate_done
