#!/usr/bin/env bash
# The main job: builds weft and runs its example conversation.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh"
bash "$root/scripts/build.sh" normal "$root/build/normal"
"$root/build/normal/examples/example_hello_weft"
