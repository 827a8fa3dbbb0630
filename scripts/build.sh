#!/usr/bin/env bash
# Configures and builds one configuration of weft: everything, or only the
# targets named after the build directory.
#   scripts/build.sh [normal|asan|tsan|m32] [build-dir] [target ...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
config=${1:-normal}
dir=${2:-$root/build/$config}
shift $(($# < 2 ? $# : 2))

# Line tables only: enough for the stack of a failing test or a sanitizer
# report, and it halves the compile time of the template-heavy files.
options=(-DWEFT_WERROR=ON "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -g1 -DNDEBUG"
         "-DCMAKE_CXX_FLAGS_DEBUG=-g1")
case "$config" in
    normal) options+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
    asan) options+=(-DCMAKE_BUILD_TYPE=Debug -DWEFT_SANITIZE=address -DWEFT_BUILD_BENCH=OFF) ;;
    tsan) options+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DWEFT_SANITIZE=thread -DWEFT_BUILD_BENCH=OFF) ;;
    m32) options+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DWEFT_M32=ON -DWEFT_BUILD_BENCH=OFF
                   -DWEFT_BUILD_TOOLS=OFF) ;;
    *) echo "unknown configuration: $config" >&2; exit 2 ;;
esac

targets=()
for target in "$@"; do
    targets+=(--target "$target")
done

cmake -S "$root" -B "$dir" -G Ninja "${options[@]}" >/dev/null
cmake --build "$dir" -j "$(nproc)" "${targets[@]}"
