#!/usr/bin/env bash
# Runs every test of tarnwick: a RelWithDebInfo build in build/ and an
# AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/, each
# built whole and run with ctest.
#
#   scripts/test.sh            both runs
#   scripts/test.sh --fast     the normal run only
#   scripts/test.sh --asan     the sanitizer run only
#   scripts/test.sh -- ARGS    further arguments for ctest (e.g. -R xml)
#
# Exits non-zero when a build or a test of either run fails.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

run_normal=1
run_asan=1
ctest_args=()
while [[ $# -gt 0 ]]; do
    case "$1" in
        --fast) run_asan=0 ;;
        --asan) run_normal=0 ;;
        --) shift; ctest_args=("$@"); break ;;
        -h|--help) sed -n '2,11p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "test.sh: unknown argument '$1' (try --help)" >&2; exit 2 ;;
    esac
    shift
done

jobs=${TARNWICK_JOBS:-2}

scripts/install-deps.sh

# build_and_test NAME DIR CMAKE-ARGS...
build_and_test() {
    local name=$1 dir=$2
    shift 2
    echo "==== $name: configure ($dir)"
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" || return 1
    echo "==== $name: build"
    cmake --build "$dir" -j "$jobs" || return 1
    echo "==== $name: test"
    (cd "$dir" && ctest --output-on-failure -j "$jobs" "${ctest_args[@]}") || return 1
}

status=0
results=()

if [[ $run_normal -eq 1 ]]; then
    if build_and_test "normal" build; then
        results+=("normal (build/): passed")
    else
        results+=("normal (build/): FAILED")
        status=1
    fi
fi

if [[ $run_asan -eq 1 ]]; then
    export ASAN_OPTIONS=halt_on_error=1:detect_leaks=1
    export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
    if build_and_test "sanitize" build-asan -DTARNWICK_SANITIZE=ON; then
        results+=("sanitize (build-asan/): passed")
    else
        results+=("sanitize (build-asan/): FAILED")
        status=1
    fi
fi

echo "==== summary"
for r in "${results[@]}"; do
    echo "  $r"
done
exit $status
