#!/usr/bin/env bash
# A short session with the demo agent and its control tool, on the loopback
# interface:
#
#   demo_session.sh AGENT CONTROL [KEYDIR]
#
# starts AGENT (demo_agent) on a free port of 127.0.0.1, runs CONTROL
# (demo_control) for a few commands over SSL, shows each reply, and stops
# the agent with SIGTERM. The agent's root directory is the session's scratch
# directory: listings inside it work, and paths that leave it ("..", an
# absolute path outside, a symbolic link pointing out) get an error reply;
# file names that are no UTF-8 come back escaped. Then a second agent listens
# with plain sockets (--nossl): the tool reaches it with --nossl, and fails
# cleanly over SSL.
# Exit status 0 when every command ended as expected and the agents stopped
# cleanly.
#
# KEYDIR holds the key files of both programs (demo_agent.cert, .key,
# .cacert and the same for demo_control); without it the session makes its
# own with tests/support/make_certs.sh.
set -uo pipefail

if [[ $# -ne 2 && $# -ne 3 ]]; then
    echo "usage: $0 AGENT CONTROL [KEYDIR]" >&2
    exit 2
fi
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
agent=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
control=$(cd "$(dirname "$2")" && pwd)/$(basename "$2")

work=$(mktemp -d)
if [[ $# -eq 3 ]]; then
    keydir=$(cd "$3" && pwd)
else
    keydir=$work/keys
    if ! sh "$here/../tests/support/make_certs.sh" "$keydir" demo_agent demo_control; then
        echo "demo_session: could not make the key files" >&2
        rm -rf "$work"
        exit 1
    fi
fi
agent_pid=
cleanup() {
    if [[ -n $agent_pid ]] && kill -0 "$agent_pid" 2>/dev/null; then
        kill -KILL "$agent_pid" 2>/dev/null
    fi
    rm -rf "$work"
}
trap cleanup EXIT

# A directory for the listing, inside the agent's root ($work, where it
# starts), with a link that points out of the root and a file whose name has a
# control byte and a byte that is no UTF-8.
mkdir -p "$work/listing/reports"
printf 'first line\n' >"$work/listing/notes.txt"
printf 'a,b\n1,2\n' >"$work/listing/data.csv"
ln -s / "$work/listing/outside"
ln -s .. "$work/listing/reports/up"
touch "$work/listing/$(printf 'odd\001name\377.txt')"

cd "$work" || exit 1

# start_agent ARGS...: starts the agent on a free port with ARGS and sets
# agent_pid and port.
start_agent() {
    rm -f "$work/port"
    "$agent" --port=0 --portfile="$work/port" --threads=2 --keydir="$keydir" "$@" \
        >"$work/agent.out" 2>"$work/agent.log" &
    agent_pid=$!
    for _ in $(seq 100); do
        [[ -s $work/port ]] && break
        kill -0 "$agent_pid" 2>/dev/null || break
        sleep 0.1
    done
    if [[ ! -s $work/port ]]; then
        echo "demo_session: the agent did not start" >&2
        cat "$work/agent.out" "$work/agent.log" >&2
        exit 1
    fi
    port=$(cat "$work/port")
    cat "$work/agent.out"
}

failures=0
# stop_agent: SIGTERM, and the agent's exit status in agent_status.
stop_agent() {
    kill -TERM "$agent_pid"
    wait "$agent_pid"
    agent_status=$?
    agent_pid=
    if [[ $agent_status -ne 0 ]]; then
        echo "demo_session: the agent did not stop cleanly" >&2
        failures=$((failures + 1))
    fi
    tail -n +2 "$work/agent.out"
}

# run EXPECTED_STATUS ARGS...: one command of the control tool.
run() {
    local expected=$1
    shift
    echo "\$ demo_control $*"
    "$control" --port="$port" --keydir="$keydir" --quiet "$@" 2>"$work/control.log" |
        tee "$work/control.out"
    local status=${PIPESTATUS[0]}
    echo "  (exit status $status)"
    if [[ $status -ne $expected ]]; then
        echo "demo_session: expected exit status $expected" >&2
        cat "$work/control.log" >&2
        failures=$((failures + 1))
    fi
}

# expect TEXT: the output of the last command holds TEXT (a fixed string).
expect() {
    if ! grep -qF -- "$1" "$work/control.out"; then
        echo "demo_session: expected the reply to hold: $1" >&2
        failures=$((failures + 1))
    fi
}

echo "---- over SSL, key files in $keydir"
start_agent
run 0 --command=version
run 0 --command=dirlist --path=listing
expect 'file notes.txt (11 bytes)'
expect 'link outside'
expect 'file odd\x01name\xFF.txt (0 bytes)'
run 0 --command=dirlist --path="$work/listing/reports"
expect 'link up'
run 0 --command=dirlist --path=listing/reports/up
expect 'dir  reports'
# Paths that leave the root directory.
leaves="the path leaves the agent's root directory."
run 1 --command=dirlist --path=..
expect "Can not list ..: $leaves"
run 1 --command=dirlist --path=/etc
expect "Can not list /etc: $leaves"
run 1 --command=dirlist --path=listing/outside
expect "Can not list listing/outside: $leaves"
run 1 --command=dirlist --path=listing/reports/up/../..
expect "$leaves"
run 1 --command=dirlist --path=listing/missing
expect 'Can not list listing/missing: No such file or directory.'
run 0 --command=heartbeat
run 1 --command=kick
stop_agent
# With the agent gone, the tool can't connect: status 2.
run 2 --command=version

echo "agent exit status $agent_status; its log:"
# The log without dates and thread numbers.
sed -E 's/^[0-9-]+ [0-9:.]+ ([A-Z]+ +)\([0-9]+\): /  \1/' "$work/agent.log"

echo "---- over plain sockets"
start_agent --nossl
run 0 --nossl --command=version
# An SSL client gets no session from a plain agent: status 2.
run 2 --command=version
stop_agent

[[ $failures -eq 0 ]]
