#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need.
# Packages already present are skipped, so a prepared machine pays nothing.
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)

packages=(
    build-essential cmake ninja-build pkg-config
    libcurl4-openssl-dev libjsoncpp-dev libsqlite3-dev libssl-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    nginx-light # tests/interop: a real front server with client-certificate checking
)
# Extra groups, asked for by name: "lint", "fuzz", "armhf", "valgrind", "load" (the load
# generator of the loaded gates), "abi" (the binary-interface dump and comparison). "armhf"
# also lays out a sysroot with the target's libraries (see make_armhf_sysroot below).
for group in "$@"; do
    case "$group" in
    lint) packages+=(clang-format clang-tidy cppcheck) ;;
    fuzz) packages+=(clang libclang-rt-14-dev) ;;
    armhf) packages+=(g++-arm-linux-gnueabihf qemu-user dpkg-dev googletest) ;;
    valgrind) packages+=(valgrind) ;;
    load) packages+=(stress-ng) ;;
    abi) packages+=(abigail-tools) ;;
    *) echo "unknown package group: $group" >&2; exit 2 ;;
    esac
done

SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive

# The index of one suite can be briefly out of sync on a mirror; what was fetched is still
# usable, and the install or download below fails plainly if a package is really missing.
apt_update() {
    $SUDO apt-get update -qq || echo "apt-get update reported errors; going on with the lists it got" >&2
}

# The armhf -dev packages cannot be installed beside the amd64 ones (their versions differ), so
# the target's libraries are unpacked into a sysroot of their own. The C and C++ runtimes come
# from the cross toolchain's /usr/arm-linux-gnueabihf, so they are left out here.
armhf_libs=(
    libcurl4-openssl-dev libcurl4 libjsoncpp-dev libjsoncpp25 libsqlite3-dev libsqlite3-0
    libssl-dev libssl3 libbrotli1 libcom-err2 libcrypt1 libdb5.3 libffi8 libgmp10 libgnutls30
    libgssapi-krb5-2 libhogweed6 libidn2-0 libk5crypto3 libkeyutils1 libkrb5-3 libkrb5support0
    libldap-2.5-0 libnettle8 libnghttp2-14 libp11-kit0 libpsl5 librtmp1 libsasl2-2
    libsasl2-modules-db libssh2-1 libtasn1-6 libunistring2 libzstd1 zlib1g
)
make_armhf_sysroot() {
    local root=${RFEVENT_ARMHF_SYSROOT:-/opt/rfevent/armhf-sysroot}
    local stamp="$root/.complete"
    if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "${armhf_libs[*]}" ]; then
        return 0
    fi
    if ! dpkg --print-foreign-architectures | grep -qx armhf; then
        $SUDO dpkg --add-architecture armhf
        apt_update
    elif ! apt-cache show libssl3:armhf >/dev/null 2>&1; then
        apt_update
    fi
    local debs
    debs=$(mktemp -d)
    chmod 755 "$debs"
    (cd "$debs" && apt-get download -qq "${armhf_libs[@]/%/:armhf}")
    rm -rf "$root"
    mkdir -p "$root"
    for deb in "$debs"/*.deb; do
        dpkg -x "$deb" "$root"
    done
    rm -rf "$debs"
    # Absolute symlinks in the packages (e.g. lib*.so -> /lib/...) must point into the sysroot.
    find "$root" -type l -lname '/*' | while read -r link; do
        ln -sfn "$root$(readlink "$link")" "$link"
    done
    # GoogleTest for the target, from Debian's source package, installed into the sysroot.
    local gtest_build
    gtest_build=$(mktemp -d)
    RFEVENT_ARMHF_SYSROOT=$root cmake -S /usr/src/googletest -B "$gtest_build" -G Ninja \
        -DCMAKE_TOOLCHAIN_FILE="$repo/cmake/toolchain-armhf.cmake" -DRFEVENT_ARMHF_SYSROOT="$root" \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$root/usr/local" >/dev/null
    cmake --build "$gtest_build" -j2 >/dev/null
    cmake --install "$gtest_build" >/dev/null
    echo "${armhf_libs[*]}" >"$stamp"
    echo "armhf sysroot ready in $root"
}

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    apt_update
    $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
for group in "$@"; do
    [ "$group" != armhf ] || make_armhf_sysroot
done
