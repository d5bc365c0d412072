#!/usr/bin/env bash
# The plug-in's binary interface (exported symbols, the alert record's layout, the JSON reader
# and the URI encoder with their types) for this machine and the 32-bit target, compared with
# abidiff against the baseline committed under abi/. Any difference fails: a change of the
# interface must change the baseline in the same commit (scripts/abi-baseline.sh).
source "$(dirname "$0")/_common.bash"
source "$(dirname "$0")/_abi.bash"
scripts/install-deps.sh armhf abi
failed=()
for arch in "${abi_architectures[@]}"; do
    baseline=$(abi_baseline "$arch")
    if [ ! -f "$baseline" ]; then
        echo "abi $arch: no baseline ${baseline#"$repo"/} (scripts/abi-baseline.sh writes it)"
        failed+=("$arch")
        continue
    fi
    abi_build_plugin "$arch"
    current=$gate_build/abi-$arch.abi
    abi_dump "$arch" "$current"
    if abidiff "$baseline" "$current" >"$gate_build/abi-$arch.diff" 2>&1; then
        echo "abi $arch: the plug-in's interface matches ${baseline#"$repo"/}"
    else
        echo "abi $arch: the plug-in's interface differs from ${baseline#"$repo"/}:"
        cat "$gate_build/abi-$arch.diff"
        failed+=("$arch")
    fi
done
if [ ${#failed[@]} -gt 0 ]; then
    echo "gate $gate_name failed for: ${failed[*]}. A deliberate change of the interface" \
        "updates the baseline in the same commit: scripts/abi-baseline.sh"
    exit 1
fi
gate_done
