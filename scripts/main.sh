#!/usr/bin/env bash
# The main job: installs what the build needs, builds the library and the
# example programs in build/ and runs every example.
#
# Each examples/NAME.cpp is one program, build/examples/NAME; examples run
# without arguments and end by themselves. The programs marked
# "tarnwick-example: session" (the demo agent and its control tool) need
# arguments: they run together, in the scripted session of
# examples/demo_session.sh, over SSL with a certificate authority and key
# files that this script makes first (tests/support/make_certs.sh).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

jobs=${TARNWICK_JOBS:-2}

scripts/install-deps.sh

echo "==== main: configure (build)"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARNWICK_BUILD_EXAMPLES=ON >/dev/null
echo "==== main: build library and examples"
cmake --build build -j "$jobs" --target tarnwick tarnwick_examples

status=0
ran=0
for src in examples/*.cpp; do
    [[ -e "$src" ]] || continue
    name=$(basename "$src" .cpp)
    grep -q "tarnwick-example: session" "$src" && continue
    echo "==== main: build/examples/$name"
    if "build/examples/$name" </dev/null; then
        ran=$((ran + 1))
    else
        rc=$?
        echo "main: example $name exited with status $rc" >&2
        status=1
    fi
done

echo "==== main: key files of demo_agent and demo_control"
# The session runs over SSL: a certificate authority of its own and the key
# files of both programs, in a scratch directory.
keydir=$(mktemp -d)
trap 'rm -rf "$keydir"' EXIT
sh tests/support/make_certs.sh "$keydir" demo_agent demo_control
ls "$keydir"

echo "==== main: session of demo_agent and demo_control"
if bash examples/demo_session.sh build/examples/demo_agent build/examples/demo_control "$keydir" \
    </dev/null; then
    ran=$((ran + 1))
else
    echo "main: the demo session failed" >&2
    status=1
fi

if [[ $status -eq 0 ]]; then
    echo "==== main: $ran example(s) ran"
fi
exit $status
