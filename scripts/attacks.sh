#!/usr/bin/env bash
# Builds the weft tool and attacks it (scripts/attacks.py): every row on the
# normal build, the memory rows again on the ASan build, whose sanitizer
# stops the server at its first report and checks for leaks when it quits.
#   scripts/attacks.sh [normal|asan|both] [attacks.py options ...]   (default: both)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
which=${1:-both}
shift $(($# > 0 ? 1 : 0))
source "$root/scripts/sanitizer-options.sh"

case "$which" in
    normal) configs=(normal) ;;
    asan) configs=(asan) ;;
    both) configs=(normal asan) ;;
    *) echo "usage: scripts/attacks.sh [normal|asan|both] [attacks.py options ...]" >&2; exit 2 ;;
esac

status=0
for config in "${configs[@]}"; do
    bash "$root/scripts/build.sh" "$config" "$root/build/$config" weft >/dev/null
    rows=all
    [ "$config" = asan ] && rows=memory
    echo "=== $config build, rows: $rows"
    python3 "$root/scripts/attacks.py" --weft "$root/build/$config/tools/weft" --rows "$rows" "$@" \
        || status=1
done
exit $status
