#!/usr/bin/env bash
# Leak check of the loaded plug-in: the leak-check host of the asan build sends 10,000 alerts
# and 1,000 metric reports through it; LeakSanitizer reports any leak at exit and fails it.
# RFEVENT_LEAKCHECK_ALERTS / RFEVENT_LEAKCHECK_REPORTS change the load.
source "$(dirname "$0")/_common.bash"
scripts/install-deps.sh
build_preset asan -DRFEVENT_BUILD_TOOLS=ON
dir=$gate_build/asan
host=$dir/tools/leakcheck/rfevent_leakcheck
if ninja -C "$dir" -t targets all | grep -q '^rfevent_leakcheck:'; then
    cmake --build "$dir" -j"$jobs" --target rfevent_leakcheck
else
    # tools/CMakeLists.txt does not list the host yet: build it the same way by hand.
    mkdir -p "$(dirname "$host")"
    c++ -std=c++17 -O1 -g -fsanitize=address,undefined -fno-omit-frame-pointer \
        -Wall -Wextra -Werror -Iinclude $(pkg-config --cflags jsoncpp) \
        -DRFEVENT_PLUGIN_PATH="\"$dir/src/libredfishevent.so\"" \
        tools/leakcheck/leakcheck.cpp -o "$host" -ldl -pthread
fi
root=$(mktemp -d)
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:exitcode=23
export LSAN_OPTIONS=report_objects=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
RFEVENT_ROOT=$root RFEVENT_LOG_LEVEL=2 "$host" "$dir/src/libredfishevent.so" \
    "${RFEVENT_LEAKCHECK_ALERTS:-10000}" "${RFEVENT_LEAKCHECK_REPORTS:-1000}"
echo "level-2 lines in the plug-in's log: $(grep -c '^<2>' "$root/leakcheck.log" || true)"
rm -rf "$root"
gate_done
