#!/usr/bin/env bash
# Installs the Debian packages a fresh machine lacks, and nothing it has.
#   scripts/setup.sh        what the library, the weft tool and the Python
#                           module need to build
#   scripts/setup.sh test   that, and what the test suite and fuzzing need;
#                           tshark (the dissector's tests) and ENet (the
#                           benchmark's baseline) come from the scripts beside
#                           those parts, which this one runs
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

packages=(
    cmake ninja-build g++ pkg-config
    libcli11-dev                           # the weft tool's argument parser
    pybind11-dev python3-dev               # the Python module
)
if [ "${1:-}" = test ]; then
    packages+=(
        python3                            # the tool, package and dissector tests
        python3-pytest                     # the Python module's tests
        googletest libgtest-dev libgmock-dev   # test framework sources and headers
        g++-multilib                       # the 32-bit build
        clang libclang-rt-14-dev           # fuzz targets (libFuzzer)
        dpkg-dev                           # the packages' library dependencies (dpkg-shlibdeps)
    )
fi

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

if [ "${1:-}" = test ]; then
    bash "$root/tools/wireshark/setup.sh"
    bash "$root/bench/setup.sh"
fi
