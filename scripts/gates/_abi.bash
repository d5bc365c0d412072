# Sourced by scripts/gates/65-abi.sh and scripts/abi-baseline.sh (after _common.bash): builds
# the plug-in with debug information for one architecture and writes its binary interface as
# libabigail's XML, restricted to the types of the public header. Locations, build folders,
# needed libraries and imported symbols are left out, so that two builds of the same sources
# in different folders give the same interface.

# The architectures with a committed baseline: this machine's own and the 32-bit target.
abi_architectures=("$(uname -m)" armhf)

abi_baseline() {
    echo "$repo/abi/$1/libredfishevent.abi"
}

# Configures (once) and builds the plug-in alone for architecture $1 into $gate_build/abi-$1.
abi_build_plugin() {
    local arch=$1 dir=$gate_build/abi-$1
    local args=(-G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRFEVENT_BUILD_TESTS=OFF
        -DRFEVENT_BUILD_TOOLS=OFF -DRFEVENT_BUILD_BENCHMARKS=OFF)
    if [ "$arch" = armhf ]; then
        args+=(-DCMAKE_TOOLCHAIN_FILE="$repo/cmake/toolchain-armhf.cmake")
    elif [ "$arch" != "$(uname -m)" ]; then
        echo "no build for $arch on $(uname -m)" >&2
        return 1
    fi
    cmake -S "$repo" -B "$dir" "${args[@]}" >"$gate_build/abi-$arch-configure.log" ||
        { cat "$gate_build/abi-$arch-configure.log"; return 1; }
    cmake --build "$dir" -j"$jobs" --target redfishevent >"$gate_build/abi-$arch-build.log" ||
        { cat "$gate_build/abi-$arch-build.log"; return 1; }
}

# Writes the interface of the plug-in built for architecture $1 to file $2: the exported
# functions and the types they reach. abidiff compares meaning, not text; so that an
# unchanged interface also gives an unchanged file, each translation unit is named by its
# path from the repository rather than from the build folder, and empty namespaces (which
# abidw places differently from one build to the next) are left out.
abi_dump() {
    local arch=$1 out=$2
    abidw --headers-dir "$repo/include/rfevent" --drop-private-types --exported-interfaces-only \
        --no-corpus-path --no-comp-dir-path --no-show-locs --no-elf-needed --drop-undefined-syms \
        --type-id-style hash "$gate_build/abi-$arch/src/libredfishevent.so" |
        perl -0pe "s|path='[^']*/src/|path='src/|g; s|\n *<namespace-decl name='[^']*'>\n *</namespace-decl>||g" \
            >"$out"
}
