#!/usr/bin/env bash
# The real target: cross build for 32-bit ARM (armhf) of the plug-in, the stand-alone platform
# library and the test suite, then the suite under qemu-arm while a load generator keeps every
# core busy (emulation on a busy machine is the slowest the suite meets). Prints the stripped
# plug-in size.
source "$(dirname "$0")/_common.bash"
scripts/install-deps.sh armhf load
build_preset armhf
dir=$gate_build/armhf
stripped=$(mktemp)
arm-linux-gnueabihf-strip -o "$stripped" "$dir/src/libredfishevent.so"
echo "stripped armhf libredfishevent.so: $(stat -c %s "$stripped") bytes"
rm -f "$stripped"

# No 32-bit time or file interface of the C library may be imported by the plug-in or the
# platform library: a build with _TIME_BITS=64 and _FILE_OFFSET_BITS=64 imports only the 64-bit
# forms. A 32-bit import is one whose name the target's C library also offers in a 64-bit form
# (time and __time64, localtime_r and __localtime64_r, stat and __stat64_time64, fstat64 and
# __fstat64_time64, open and open64, fcntl64 and __fcntl_time64, ...), or fseek and ftell,
# whose offsets are a long.
libc=/usr/arm-linux-gnueabihf/lib/libc.so.6
twins=$(arm-linux-gnueabihf-nm -D --defined-only "$libc" | awk '{print $3}' | sed 's/@.*//' |
    grep 64 | grep -Ev '^(strtof64|strtof64_l|wcstof64|wcstof64_l|strfromf64|a64l|l64a|xdr_)' |
    sort -u)
time32_imports() {
    local symbol base
    arm-linux-gnueabihf-nm -D --undefined-only "$1" | awk '{print $2}' | grep '@GLIBC_' |
        sed 's/@.*//' | sort -u | while read -r symbol; do
        base=${symbol%_r}
        case $symbol in fseek | ftell) echo "$symbol (offsets are a long)"; continue ;; esac
        for twin in "${symbol}64" "__${symbol}64" "__${symbol}_time64" "__${symbol}64_time64" \
            "__${symbol%64}_time64" "__${base}64_r" "${base}64_r"; do
            if [ "$twin" != "$symbol" ] && grep -qx -- "$twin" <<<"$twins"; then
                echo "$symbol (64-bit form: $twin)"
                break
            fi
        done
    done
}
time32_found=0
for lib in "$dir/src/libredfishevent.so" "$dir"/src/librfevent-platform.so.*.*.*; do
    found=$(time32_imports "$lib")
    if [ -n "$found" ]; then
        echo "$(basename "$lib") imports 32-bit time or file interfaces:"
        sed 's/^/  /' <<<"$found"
        time32_found=1
    else
        echo "$(basename "$lib"): no 32-bit time or file interface imported"
    fi
done
[ "$time32_found" -eq 0 ]
# Tests that start the simulator as a program of its own go through the host's shell, which
# cannot start an ARM executable without binfmt_misc (not available in containers); a wrapper
# of the same name starts it under qemu-arm instead.
sim=$dir/tools/rfevent-sim
sysroot=${RFEVENT_ARMHF_SYSROOT:-/opt/rfevent/armhf-sysroot}
if [ -f "$sim" ] && arm-linux-gnueabihf-readelf -h "$sim" 2>/dev/null | grep -q 'Machine:.*ARM'; then
    mv -f "$sim" "$sim.armhf"
    cat >"$sim" <<WRAP
#!/bin/sh
exec qemu-arm -L /usr/arm-linux-gnueabihf \\
    -E LD_LIBRARY_PATH=$sysroot/usr/lib/arm-linux-gnueabihf:$sysroot/lib/arm-linux-gnueabihf \\
    "$sim.armhf" "\$@"
WRAP
    chmod +x "$sim"
fi
start_load
ctest --test-dir "$dir" -j"$jobs" --output-on-failure --no-tests=error
stop_load
gate_done
