#!/usr/bin/env bash
# The real target: cross build for 32-bit ARM (armhf) of the plug-in, the stand-alone platform
# library and the test suite, then the suite under qemu-arm. Prints the stripped plug-in size.
source "$(dirname "$0")/_common.bash"
scripts/install-deps.sh armhf
build_preset armhf
dir=$gate_build/armhf
stripped=$(mktemp)
arm-linux-gnueabihf-strip -o "$stripped" "$dir/src/libredfishevent.so"
file -b "$stripped" 2>/dev/null | cut -d, -f1-2 || true
echo "stripped armhf libredfishevent.so: $(stat -c %s "$stripped") bytes"
rm -f "$stripped"
ctest --test-dir "$dir" -j"$jobs" --output-on-failure --no-tests=error
gate_done
