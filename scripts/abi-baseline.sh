#!/usr/bin/env bash
# Writes the baseline of the plug-in's binary interface that scripts/gates/65-abi.sh compares
# every build with: abi/<architecture>/libredfishevent.abi for this machine and the 32-bit
# target. Run it only for a deliberate change of the interface, and commit the new files with
# that change, after reading what changed (printed below with abidiff).
source "$(dirname "$0")/gates/_common.bash"
source "$(dirname "$0")/gates/_abi.bash"
scripts/install-deps.sh armhf abi
for arch in "${abi_architectures[@]}"; do
    baseline=$(abi_baseline "$arch")
    abi_build_plugin "$arch"
    mkdir -p "$(dirname "$baseline")"
    if [ -f "$baseline" ]; then
        abi_dump "$arch" "$gate_build/abi-$arch.abi"
        abidiff "$baseline" "$gate_build/abi-$arch.abi" || true
        cp "$gate_build/abi-$arch.abi" "$baseline"
    else
        abi_dump "$arch" "$baseline"
    fi
    echo "wrote ${baseline#"$repo"/}"
done
