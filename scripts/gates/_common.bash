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

# Keeps every core busy while the suite runs (one stress-ng CPU worker per core, from the
# "load" package group), the way a machine shared with other work is busy. stop_load ends it;
# so does leaving the gate in any way, a failing command or an interruption included.
# stress-ng's own time limit ends it should the gate be killed outright.
load_pid=""
stop_load() {
    if [ -n "$load_pid" ]; then
        kill -TERM "$load_pid" 2>/dev/null || true
        wait "$load_pid" 2>/dev/null || true
        load_pid=""
    fi
}
start_load() {
    stop_load
    trap stop_load EXIT
    trap 'stop_load; exit 130' INT
    trap 'stop_load; exit 143' TERM
    stress-ng --cpu "$(nproc)" --timeout "${RFEVENT_LOAD_LIMIT_SECONDS:-3600}" --quiet &
    load_pid=$!
    echo "load: stress-ng keeps $(nproc) cores busy (pid $load_pid)"
}
