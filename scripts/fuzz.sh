#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang (ASan + UBSan) in
# build-fuzz/ and runs each of them for a while.
#
#   scripts/fuzz.sh [SECONDS]     default 60 seconds per target
#
# Each target starts from its seed corpus fuzz/corpus/NAME/ (copied into
# build-fuzz/corpus/NAME/, which keeps what the runs find) and uses the
# dictionary fuzz/NAME.dict when there is one. A crash, leak, timeout or
# sanitizer report fails the script; the input that caused it is left in
# build-fuzz/artifacts/NAME/ and the run's log in build-fuzz/logs/NAME.log.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

seconds=${1:-60}
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || [[ "$seconds" -eq 0 ]]; then
    echo "usage: scripts/fuzz.sh [SECONDS]" >&2
    exit 2
fi
jobs=${TARNWICK_JOBS:-2}
dir=build-fuzz

scripts/install-deps.sh

echo "==== fuzz: configure ($dir)"
CC=clang CXX=clang++ cmake -S . -B "$dir" \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTARNWICK_FUZZ=ON \
    -DTARNWICK_WERROR=ON \
    -DTARNWICK_BUILD_TESTS=OFF -DTARNWICK_BUILD_EXAMPLES=OFF -DTARNWICK_BUILD_BENCH=OFF
echo "==== fuzz: build"
cmake --build "$dir" -j "$jobs"

targets=()
for src in fuzz/*_fuzz.cpp; do
    [[ -e "$src" ]] || continue
    targets+=("$(basename "$src" .cpp)")
done
if [[ ${#targets[@]} -eq 0 ]]; then
    echo "fuzz: no fuzz targets in fuzz/" >&2
    exit 1
fi

export ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:abort_on_error=0
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1

passed=0
failed=0
for name in "${targets[@]}"; do
    exe="$dir/fuzz/$name"
    if [[ ! -x "$exe" ]]; then
        echo "fuzz: $exe was not built" >&2
        failed=$((failed + 1))
        continue
    fi
    corpus="$dir/corpus/$name"
    artifacts="$dir/artifacts/$name/"
    log="$dir/logs/$name.log"
    mkdir -p "$corpus" "$artifacts" "$(dirname "$log")"
    if [[ -d "fuzz/corpus/$name" ]]; then
        cp -n "fuzz/corpus/$name"/* "$corpus"/ 2>/dev/null || true
    fi
    args=(-max_total_time="$seconds" -timeout=25 -rss_limit_mb=4096
          -print_final_stats=1 -artifact_prefix="$artifacts")
    if [[ -f "fuzz/$name.dict" ]]; then
        args+=(-dict="fuzz/$name.dict")
    fi

    echo "==== fuzz: $name for ${seconds}s (log: $log)"
    if "$exe" "${args[@]}" "$corpus" >"$log" 2>&1; then
        runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
        cov=$(grep -o 'cov: [0-9]*' "$log" | tail -n 1 || true)
        echo "fuzz: $name passed: ${runs:-?} inputs, ${cov:-cov: ?}, corpus $(find "$corpus" -type f | wc -l) files"
        passed=$((passed + 1))
    else
        echo "fuzz: $name FAILED; end of its log:" >&2
        tail -n 60 "$log" >&2
        ls -l "$artifacts" >&2 || true
        failed=$((failed + 1))
    fi
done

total=${#targets[@]}
if [[ $failed -eq 0 ]]; then
    echo "fuzz: all $total target(s) ran ${seconds}s without a finding"
else
    echo "fuzz: $failed of $total target(s) FAILED" >&2
    exit 1
fi
