#!/usr/bin/env bash
# The long soak: eight connections exchanging numbered messages both ways at
# once, over TCP and over reliable EUDP through a relay that loses 5% of the
# datagrams, duplicates and reorders them. Every message must arrive once and
# in order; the sanitizer builds add leak and race checks.
#   scripts/soak.sh [configuration ...]     (default: normal asan tsan)
#   WEFT_SOAK_MESSAGES   messages per connection and direction (default 20000)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

export WEFT_SOAK_MESSAGES=${WEFT_SOAK_MESSAGES:-20000}
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}

configs=("$@")
if [ ${#configs[@]} -eq 0 ]; then
    configs=(normal asan tsan)
fi

failed=()
for config in "${configs[@]}"; do
    # The same configurations as scripts/build.sh, but only the soak test is built.
    options=(-DWEFT_WERROR=ON)
    case "$config" in
        normal) options+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
        asan) options+=(-DCMAKE_BUILD_TYPE=Debug -DWEFT_SANITIZE=address -DWEFT_BUILD_BENCH=OFF) ;;
        tsan) options+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DWEFT_SANITIZE=thread -DWEFT_BUILD_BENCH=OFF) ;;
        m32) options+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DWEFT_M32=ON -DWEFT_BUILD_BENCH=OFF
                       -DWEFT_BUILD_TOOLS=OFF) ;;
        *) echo "unknown configuration: $config" >&2; exit 2 ;;
    esac
    dir="$root/build/$config"
    echo "=== $config: build"
    cmake -S "$root" -B "$dir" -G Ninja "${options[@]}" >/dev/null
    cmake --build "$dir" --target SoakTest
    echo "=== $config: soak with $WEFT_SOAK_MESSAGES messages per connection and direction"
    start=$SECONDS
    # Run directly rather than through ctest, whose per-test time limit suits
    # the short version only.
    if ! "$dir/tests/SoakTest"; then
        failed+=("$config")
    fi
    echo "=== $config: done in $((SECONDS - start)) s"
done

if [ ${#failed[@]} -gt 0 ]; then
    echo "SOAK FAILED in: ${failed[*]}"
    exit 1
fi
echo "soak passed: ${configs[*]}"
