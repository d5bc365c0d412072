# Sourced by every gate script: strict mode, the repository as working folder, one build folder
# per gate under $RFEVENT_GATE_BUILD (default build-gates/), and a timer for the summary line.
set -euo pipefail
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
cd "$repo"
gate_build=${RFEVENT_GATE_BUILD:-$repo/build-gates}
jobs=${RFEVENT_JOBS:-$(nproc)}
gate_name=$(basename "$0" .sh)
gate_started=$SECONDS
mkdir -p "$gate_build"

gate_done() {
    echo "gate $gate_name passed in $((SECONDS - gate_started)) s"
}

# Configures (once) and builds one preset into $gate_build/<preset>; extra arguments are
# passed to the configure step.
build_preset() {
    local preset=$1
    shift
    local dir=$gate_build/$preset
    cmake --preset "$preset" -B "$dir" "$@" >"$gate_build/$preset-configure.log" ||
        { cat "$gate_build/$preset-configure.log"; return 1; }
    cmake --build "$dir" -j"$jobs"
}
