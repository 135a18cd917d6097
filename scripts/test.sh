#!/usr/bin/env bash
# Runs every test of tarnwick: a RelWithDebInfo build in build/ and an
# AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/, each
# built whole and run with ctest; then the threaded tests (engine, routing,
# connections, tokens, signals, typed configuration, child processes, log
# rotation, web service calls, scheduler and daemons, store uploads) under
# ThreadSanitizer in build-tsan/.
#
#   scripts/test.sh            all runs
#   scripts/test.sh --fast     the normal run only
#   scripts/test.sh --asan     the sanitizer runs only (ASan+UBSan, TSan)
#   scripts/test.sh -- ARGS    further arguments for ctest (e.g. -R xml)
#
# Exits non-zero when a build or a test of any run fails.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

run_normal=1
run_asan=1
run_tsan=1
ctest_args=()
while [[ $# -gt 0 ]]; do
    case "$1" in
        --fast) run_asan=0; run_tsan=0 ;;
        --asan) run_normal=0 ;;
        --) shift; ctest_args=("$@"); break ;;
        -h|--help) sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
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
    # The package test runs in the normal build only (packages are made without sanitizers).
    (cd "$dir" && ctest --output-on-failure -j "$jobs" $([[ $name == normal ]] || echo -LE package) "${ctest_args[@]}") || return 1
}

status=0
results=()

if [[ $run_normal -eq 1 ]]; then
    # -Wall -Wextra clean: a warning fails the build.
    if build_and_test "normal" build -DTARNWICK_WERROR=ON; then
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

if [[ $run_tsan -eq 1 ]]; then
    export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
    tsan_targets=(engine_test engine_dispatch_test engine_connection_test engine_relay_test
        engine_hostile_test router_test handler_test handler_t_test act_cache_test
        message_codec_test application_test twconfiguration_test process_test twprocess_test
        logfile_rotate_test webservice_test scheduler_test pidfile_test service_systemd_test
        contentrouter_test engine_forward_test engine_reactor_test router_tokens_test xml_test
        abstract_event_test message_block_test)
    # Parameterised suites are instantiated as Workers/SUITE. The application
    # tests that run here are those of the signal thread, signalled from
    # within the process; a test that stops a separate program with one
    # signal stays out, since ThreadSanitizer's runtime may lose that signal
    # (docs/testing.md). The signal storm sends ten SIGTERMs.
    tsan_tests='^(Workers/)?(Engine|Router|RoutingKey|Handler|PlainHandler|SSLHandler|ACTList|SigPipeGuard|MessageReader|MessageWriter)'
    tsan_tests+='|^ProgramTest\.SignalStorm'
    tsan_tests+='|^RunTest\.(Signal|RunReturns|HandleSignal)'
    # Typed configuration reloads racing with readers, child processes killed
    # from another thread while waited for, rotation under logging threads,
    # and web service calls shut down from another thread.
    tsan_tests+='|^(TWConfArgumentTest|TWSubConfigurationTest|TWConfigurationTest|TWSubConfigurationReloadRaceTest)\.'
    tsan_tests+='|^(ProcessTest|TWProcessTest|RotateTest)\.|^WebService'
    # The scheduler's and the reload task's threads, and uploads to the
    # threaded test store.
    tsan_tests+='|^(SchedulerTest|ReloadTaskTest)\.|^ContentRouter'
    # Payloads parsed on one thread and freed on another, with each thread's
    # own parser context.
    tsan_tests+='|^(PayloadReadingTest|AbstractEventPayload)\.'
    # Message blocks kept per thread and released on another.
    tsan_tests+='|^MessageBlockReuse\.'
    echo "==== threads: configure (build-tsan)"
    if cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARNWICK_TSAN=ON \
            -DTARNWICK_BUILD_EXAMPLES=OFF -DTARNWICK_BUILD_BENCH=OFF &&
        echo "==== threads: build" &&
        cmake --build build-tsan -j "$jobs" --target "${tsan_targets[@]}" &&
        echo "==== threads: test" &&
        (cd build-tsan && ctest --output-on-failure -j "$jobs" -LE package -R "$tsan_tests" "${ctest_args[@]}"); then
        results+=("threads (build-tsan/): passed")
    else
        results+=("threads (build-tsan/): FAILED")
        status=1
    fi
fi

echo "==== summary"
for r in "${results[@]}"; do
    echo "  $r"
done
exit $status
