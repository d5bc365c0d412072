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
