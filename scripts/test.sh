#!/usr/bin/env bash
# Runs the whole test suite: a normal build, an AddressSanitizer+UBSan build,
# a ThreadSanitizer build and a 32-bit build, each with every test.
#   scripts/test.sh [configuration ...]   (default: normal asan tsan m32)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh" test

configs=("$@")
if [ ${#configs[@]} -eq 0 ]; then
    configs=(normal asan tsan m32)
fi

# Most tests wait on the network or on protocol time-outs rather than on the
# CPU, so many run at once even on two cores.
jobs=${WEFT_TEST_JOBS:-12}

source "$root/scripts/sanitizer-options.sh"

failed=()
for config in "${configs[@]}"; do
    echo "=== $config: build"
    start=$SECONDS
    bash "$root/scripts/build.sh" "$config" "$root/build/$config"
    echo "=== $config: test"
    if ! ctest --test-dir "$root/build/$config" -j "$jobs" --output-on-failure \
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
