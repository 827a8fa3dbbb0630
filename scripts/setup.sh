#!/usr/bin/env bash
# Installs what a fresh Debian machine lacks to build and test weft.
# Safe to run again: it installs only packages that are missing.
set -euo pipefail

packages=(
    cmake ninja-build g++ make pkg-config python3
    googletest libgtest-dev libgmock-dev   # test framework sources and headers
    g++-multilib                           # the 32-bit build
    clang libclang-rt-14-dev               # fuzz targets (libFuzzer)
    libcli11-dev                           # the weft tool's argument parser
    pybind11-dev python3-dev python3-pytest # the Python module and its tests
)

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
    sudo_cmd=(sudo)
fi

if [ ${#missing[@]} -gt 0 ]; then
    echo "setup: installing ${missing[*]}"
    "${sudo_cmd[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends \
        "${missing[@]}" >/dev/null
fi

# Optional parts bring their own setup.
for extra in "$(dirname "$0")"/../tools/wireshark/setup.sh "$(dirname "$0")"/../bench/setup.sh; do
    if [ -f "$extra" ]; then
        bash "$extra"
    fi
done
