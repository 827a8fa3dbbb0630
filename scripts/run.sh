#!/usr/bin/env bash
# The main job: builds the weft tool and runs its demo, a server and a client
# talking over loopback on TCP and then on EUDP.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh"
dir="$root/build/normal"
# The same configuration as scripts/build.sh normal, but only the tool is built.
cmake -S "$root" -B "$dir" -G Ninja -DWEFT_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$dir" --target weft
"$dir/tools/weft" demo
