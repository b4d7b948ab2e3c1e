#!/usr/bin/env bash
# Installs the Debian packages that building and testing KrPal needs, and only those that
# are missing. Idempotent; runs apt-get as root, through sudo otherwise.
#   scripts/install-deps.sh [--fuzz] [--qt 6] [more packages]
set -euo pipefail

packages=(cmake ninja-build g++ pkg-config binutils file dpkg-dev clang-format doxygen qtbase5-dev qtpositioning5-dev libbenchmark-dev)
while [ $# -gt 0 ]; do
    case "$1" in
        # clang and its libFuzzer runtime as well, for the fuzz build (run-tests.sh --fuzz).
        --fuzz) packages+=(clang libclang-rt-14-dev); shift ;;
        # Qt 6 beside Qt 5, for the Qt 6 build (run-tests.sh --qt 6).
        --qt) [ "$2" = 5 ] || packages+=(qt6-base-dev qt6-positioning-dev); shift 2 ;;
        *) break ;;
    esac
done
packages+=("$@")

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)
echo "Installing: ${missing[*]}"
"${sudo[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
