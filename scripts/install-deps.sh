#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need.
# Packages already present are skipped, so a prepared machine pays nothing.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config
    libcurl4-openssl-dev libjsoncpp-dev libsqlite3-dev libssl-dev
    libgtest-dev libgmock-dev libbenchmark-dev
)
# Extra groups, asked for by name: "lint", "fuzz", "armhf".
for group in "$@"; do
    case "$group" in
    lint) packages+=(clang-format clang-tidy cppcheck) ;;
    fuzz) packages+=(clang libclang-rt-14-dev) ;;
    armhf) packages+=(g++-arm-linux-gnueabihf qemu-user dpkg-dev) ;;
    valgrind) packages+=(valgrind) ;;
    *) echo "unknown package group: $group" >&2; exit 2 ;;
    esac
done

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
