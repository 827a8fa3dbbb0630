#!/usr/bin/env bash
# The main job: builds the weft tool and runs its demo, a server and a client
# talking over loopback on TCP and then on EUDP.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh"
dir="$root/build/normal"
bash "$root/scripts/build.sh" normal "$dir" weft
"$dir/tools/weft" demo
