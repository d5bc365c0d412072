#!/usr/bin/env bash
# Every libFuzzer target (fuzz/*_fuzz.cpp) runs for a bounded time from its committed seed
# corpus, with AddressSanitizer and UndefinedBehaviorSanitizer. A crash, a leak, a sanitizer
# report or a time-out fails the gate; the reproducer is kept under $gate_build/fuzz-findings/.
# Seconds per target: RFEVENT_FUZZ_SECONDS (default 25).
source "$(dirname "$0")/_common.bash"
scripts/install-deps.sh fuzz
seconds=${RFEVENT_FUZZ_SECONDS:-25}
dir=$gate_build/fuzz
cmake --preset fuzz -B "$dir" >"$gate_build/fuzz-configure.log" ||
    { cat "$gate_build/fuzz-configure.log"; exit 1; }
cmake --build "$dir" -j"$jobs" --target fuzzers

findings=$gate_build/fuzz-findings
rm -rf "$findings"
mkdir -p "$findings"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
status=0
for source in fuzz/*_fuzz.cpp; do
    target=$(basename "$source" .cpp)
    seeds=fuzz/corpus/$target
    [ -d "$seeds" ] || { echo "no seed corpus $seeds"; status=1; continue; }
    # New inputs go to a scratch corpus; the committed seeds are only read.
    work=$(mktemp -d)
    root=$(mktemp -d)
    echo "-- $target: ${seconds} s from $(find "$seeds" -type f | wc -l) seeds"
    if ! RFEVENT_ROOT=$root "$dir/fuzz/$target" -max_total_time="$seconds" -timeout=10 \
        -rss_limit_mb=2048 -max_len=8192 -print_final_stats=1 \
        -artifact_prefix="$findings/$target-" "$work" "$seeds" >"$findings/$target.log" 2>&1; then
        status=1
        grep -E 'ERROR|SUMMARY|runtime error|Test unit written' "$findings/$target.log" || true
        tail -n 40 "$findings/$target.log"
        echo "FUZZ FINDING in $target: add the reproducer to tests/regressions/inputs/$target/"
    else
        grep -E 'stat::number_of_executed_units|stat::new_units_added' "$findings/$target.log" |
            tr '\n' ' '
        echo
    fi
    rm -rf "$work" "$root"
done
[ "$status" -eq 0 ] || exit 1
gate_done
