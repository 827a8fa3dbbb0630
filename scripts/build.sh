#!/usr/bin/env bash
# Configures and builds one configuration of weft.
#   scripts/build.sh [normal|asan|tsan|m32] [build-dir]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
config=${1:-normal}
dir=${2:-$root/build/$config}

options=(-DWEFT_WERROR=ON)
case "$config" in
    normal) options+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
    asan) options+=(-DCMAKE_BUILD_TYPE=Debug -DWEFT_SANITIZE=address -DWEFT_BUILD_BENCH=OFF) ;;
    tsan) options+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DWEFT_SANITIZE=thread -DWEFT_BUILD_BENCH=OFF) ;;
    m32) options+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DWEFT_M32=ON -DWEFT_BUILD_BENCH=OFF
                   -DWEFT_BUILD_TOOLS=OFF) ;;
    *) echo "unknown configuration: $config" >&2; exit 2 ;;
esac

cmake -S "$root" -B "$dir" -G Ninja "${options[@]}" >/dev/null
cmake --build "$dir" -j "$(nproc)"
