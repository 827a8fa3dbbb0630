#!/usr/bin/env bash
# Runs the whole test suite: a normal build, an AddressSanitizer+UBSan build
# made with clang (so that both compilers build everything, tests included,
# with warnings as errors), a ThreadSanitizer build and a 32-bit build, each
# with every test.
#   scripts/test.sh [configuration ...]   (default: normal asan tsan m32)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh" test

configs=("$@")
if [ ${#configs[@]} -eq 0 ]; then
    configs=(normal asan tsan m32)
fi

# Many tests wait on the network rather than on the CPU, so several run at
# once even on two cores; not so many that the shortened time-outs of the
# system tests meet a starved CPU.
jobs=${WEFT_TEST_JOBS:-6}

source "$root/scripts/sanitizer-options.sh"

failed=()
for config in "${configs[@]}"; do
    echo "=== $config: build"
    start=$SECONDS
    dir="$root/build/$config"
    compilers=()
    if [ "$config" = asan ]; then
        # A folder of its own: a build folder keeps the compiler it was made with.
        dir="$root/build/asan-clang"
        compilers=(CC=clang CXX=clang++)
    fi
    env "${compilers[@]}" bash "$root/scripts/build.sh" "$config" "$dir"
    echo "=== $config: test"
    if ! ctest --test-dir "$dir" -j "$jobs" --output-on-failure \
            --timeout 300 --no-tests=error; then
        failed+=("$config")
    fi
    echo "=== $config: done in $((SECONDS - start)) s"
done

if [ ${#failed[@]} -gt 0 ]; then
    echo "FAILED in: ${failed[*]}"
    exit 1
fi
echo "all configurations passed: ${configs[*]}"
