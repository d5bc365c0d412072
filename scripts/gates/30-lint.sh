#!/usr/bin/env bash
# clang-format (no difference allowed), clang-tidy with the checked-in .clang-tidy, and cppcheck,
# over the project's own sources. Any finding fails the gate.
source "$(dirname "$0")/_common.bash"
scripts/install-deps.sh lint fuzz
status=0

mapfile -t sources < <(git ls-files -co --exclude-standard -- 'src/*.cpp' 'src/*.h' \
    'include/*.h' 'tests/*.cpp' 'tests/*.h' 'tools/*.cpp' 'tools/*.h' 'fuzz/*.cpp' 'fuzz/*.h' \
    'bench/*.cpp' 'bench/*.h' | sort -u)
mapfile -t units < <(printf '%s\n' "${sources[@]}" | grep '\.cpp$')

echo "-- clang-format (${#sources[@]} files)"
clang-format --dry-run --Werror "${sources[@]}" || status=1

# A compilation database of everything, fuzz targets included, as clang sees it; nothing
# needs to be compiled for the analysis.
dir=$gate_build/lint
cmake --preset debug -B "$dir" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DRFEVENT_BUILD_FUZZERS=ON -DRFEVENT_BUILD_BENCHMARKS=ON -DRFEVENT_BUILD_TOOLS=ON \
    >"$gate_build/lint-configure.log" || { cat "$gate_build/lint-configure.log"; exit 1; }
mapfile -t analysed < <(python3 - "$dir/compile_commands.json" "${units[@]}" <<'PY'
import json, os, sys
db = {os.path.realpath(e["file"]) for e in json.load(open(sys.argv[1]))}
for f in sys.argv[2:]:
    if os.path.realpath(f) in db:
        print(f)
PY
)

# clang-tidy over the product and its tools (the tests are covered by cppcheck and the
# compilers' warnings; analysing GoogleTest-heavy units would double the gate's time).
mapfile -t tidy_units < <(printf '%s\n' "${analysed[@]}" | grep -E '^(src|tools|fuzz|bench)/')
echo "-- clang-tidy (${#tidy_units[@]} translation units)"
# GCC-only warning flags of the build (e.g. -Wshadow=local) are unknown to clang.
printf '%s\n' "${tidy_units[@]}" |
    xargs -P "$jobs" -n 4 clang-tidy-14 -p "$dir" --quiet --use-color=false \
        --warnings-as-errors='*' --extra-arg=-Wno-unknown-warning-option \
        >"$gate_build/clang-tidy.log" 2>&1 || status=1
grep -E '^/[^ ]+:[0-9]+:[0-9]+: (warning|error):' "$gate_build/clang-tidy.log" | sort -u || true

# Functions of the product read top to bottom: at most 50 lines each (LineThreshold in
# .clang-tidy).
mapfile -t product_units < <(printf '%s\n' "${analysed[@]}" | grep -E '^src/')
echo "-- function length (${#product_units[@]} translation units)"
printf '%s\n' "${product_units[@]}" |
    xargs -P "$jobs" -n 4 clang-tidy-14 -p "$dir" --quiet --use-color=false \
        --checks='-*,readability-function-size' --warnings-as-errors='*' \
        --extra-arg=-Wno-unknown-warning-option >"$gate_build/function-size.log" 2>&1 ||
    status=1
grep -E -A3 '^/[^ ]+:[0-9]+:[0-9]+: (warning|error):' "$gate_build/function-size.log" |
    grep -E 'warning|error|note' | sort -u || true

echo "-- cppcheck"
# Suppressed, each for one reason:
# - cppcheckError, internalAstError: cppcheck 2.10 gives up on some valid C++ (for example the
#   chrono literal 5s); that is a limit of the tool, not a defect of the file.
# - passedByValue in four files: the parameters are std::string by value because the
#   declared interface (the public RF_Json_Reader::parse, filterEventsSSE, sendLastLogToSSE,
#   GenerateLogEntryJsonForTelemetry) says so.
# - ctuOneDefinitionRuleViolation in the event-log fault test: that test stands in for the
#   platform library in its own executable and so defines the platform's opaque type itself.
cppcheck --project="$dir/compile_commands.json" --quiet --error-exitcode=1 --inline-suppr \
    --enable=warning,performance,portability --std=c++17 --library=googletest \
    --suppress=missingIncludeSystem --suppress=unmatchedSuppression \
    --suppress=cppcheckError --suppress=internalAstError \
    --suppress="passedByValue:*src/base/json.cpp" \
    --suppress="passedByValue:*src/sse/filter.cpp" \
    --suppress="passedByValue:*src/telemetry/replay.cpp" \
    --suppress="passedByValue:*src/telemetry/log_reports.cpp" \
    --suppress="ctuOneDefinitionRuleViolation:*tests/jxlog_faults/jxlog_faults_test.cpp" \
    --suppress="ctuOneDefinitionRuleViolation:*src/platform/standalone/event_log.cpp" \
    -i"$dir" -j "$jobs" --cppcheck-build-dir="$(mkdir -p "$dir/cppcheck" && echo "$dir/cppcheck")" \
    --template='{file}:{line}: {severity}: {message} [{id}]' || status=1

[ "$status" -eq 0 ] || { echo "gate $gate_name: findings above"; exit 1; }
gate_done
