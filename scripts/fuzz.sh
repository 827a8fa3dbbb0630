#!/usr/bin/env bash
# Fuzzes every decoder of bytes from the network for a bounded time: a clang
# build with libFuzzer, AddressSanitizer and UBSan, each target run on a copy
# of its seed corpus and its kept regressions. A crash (or hang, leak or
# memory blow-up) fails the script, and the input that caused it is copied
# into tests/fuzz/regressions/<target>/, to be committed as a regression.
#   scripts/fuzz.sh [target ...]          (default: every target)
#   WEFT_FUZZ_SECONDS    time per target (default 30)
#   WEFT_FUZZ_JOBS       targets fuzzed side by side (default 2)
#   WEFT_FUZZ_BUILD_DIR  build directory (default build/fuzz)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh" test

seconds=${WEFT_FUZZ_SECONDS:-30}
jobs=${WEFT_FUZZ_JOBS:-2}
dir=${WEFT_FUZZ_BUILD_DIR:-$root/build/fuzz}
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    targets=(weft_packet eudp_receiver)
fi

echo "=== fuzz: build"
CC=clang CXX=clang++ cmake -S "$root" -B "$dir" -G Ninja -DWEFT_WERROR=ON -DWEFT_BUILD_FUZZ=ON \
    -DWEFT_SANITIZE=address -DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -g1 -DNDEBUG" -DWEFT_BUILD_BENCH=OFF \
    -DWEFT_BUILD_TOOLS=OFF -DWEFT_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$dir" -j "$(nproc)" --target fuzzers

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

work="$dir/fuzz-work"
rm -rf "$work"

# Fuzzes one target; its log and exit code stay in its work folder.
fuzz_one() {
    local target=$1
    local place="$work/$target"
    mkdir -p "$place/corpus" "$place/artifacts"
    cp "$root/tests/fuzz/corpus/$target/"* "$place/corpus/"
    if [ -d "$root/tests/fuzz/regressions/$target" ]; then
        find "$root/tests/fuzz/regressions/$target" -maxdepth 1 -type f ! -name '.*' \
            -exec cp {} "$place/corpus/" \;
    fi
    local status=0
    "$dir/tests/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -max_len=4096 -print_final_stats=1 -artifact_prefix="$place/artifacts/" \
        "$place/corpus" >"$place/log" 2>&1 || status=$?
    echo "$status" >"$place/status"
}

echo "=== fuzz: ${targets[*]}, ${seconds} s each, ${jobs} at a time"
running=0
for target in "${targets[@]}"; do
    if [ ! -x "$dir/tests/fuzz/fuzz_$target" ]; then
        echo "unknown fuzz target: $target" >&2
        exit 2
    fi
    fuzz_one "$target" &
    running=$((running + 1))
    if [ "$running" -ge "$jobs" ]; then
        wait -n
        running=$((running - 1))
    fi
done
wait

failed=()
for target in "${targets[@]}"; do
    place="$work/$target"
    status=$(cat "$place/status")
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$place/log")
    speed=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$place/log")
    coverage=$(grep -o 'cov: [0-9]*' "$place/log" | tail -n 1 || true)
    echo "$target: ${runs:-?} runs, ${speed:-?} per second, ${coverage:-cov: ?}, exit $status"
    if [ "$status" -ne 0 ]; then
        failed+=("$target")
        echo "--- $target log (last lines):"
        tail -n 40 "$place/log"
        kept="$root/tests/fuzz/regressions/$target"
        mkdir -p "$kept"
        for input in "$place/artifacts/"*; do
            [ -f "$input" ] || continue
            cp "$input" "$kept/"
            echo "kept $kept/$(basename "$input")"
        done
    fi
done

if [ ${#failed[@]} -gt 0 ]; then
    echo "FUZZING FAILED in: ${failed[*]}"
    echo "The inputs that failed are in tests/fuzz/regressions/<target>/: fix the fault, then"
    echo "commit them as regressions (git add tests/fuzz/regressions); every build's"
    echo "Fuzz.<target>.CorpusAndRegressions test runs them from then on."
    exit 1
fi
echo "fuzzing passed: ${targets[*]}"
