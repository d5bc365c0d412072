#!/usr/bin/env bash
# The whole suite built with AddressSanitizer, UndefinedBehaviorSanitizer and LeakSanitizer.
# Any report aborts the test process, so ctest fails.
source "$(dirname "$0")/_common.bash"
scripts/install-deps.sh
build_preset asan
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1:detect_stack_use_after_return=1:check_initialization_order=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ctest --test-dir "$gate_build/asan" -j"$jobs" --output-on-failure --no-tests=error
gate_done
