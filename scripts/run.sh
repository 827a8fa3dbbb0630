#!/usr/bin/env bash
# The main job: builds the weft tool and runs its demo, a server and a client
# talking over loopback on TCP and then on EUDP. It installs only what the
# library and the tool need, and shows the build only when it fails.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh"
dir="$root/build/normal"
mkdir -p "$dir"
if ! bash "$root/scripts/build.sh" normal "$dir" weft >"$dir/run-build.log" 2>&1; then
    cat "$dir/run-build.log" >&2
    echo "run: the build failed (log: $dir/run-build.log)" >&2
    exit 1
fi
"$dir/tools/weft" demo
