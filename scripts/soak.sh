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
source "$root/scripts/sanitizer-options.sh"

configs=("$@")
if [ ${#configs[@]} -eq 0 ]; then
    configs=(normal asan tsan)
fi

failed=()
for config in "${configs[@]}"; do
    dir="$root/build/$config"
    echo "=== $config: build"
    bash "$root/scripts/build.sh" "$config" "$dir" SoakTest
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
