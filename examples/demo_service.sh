#!/usr/bin/env bash
# demo_service.sh AGENT: the demo agent as a systemd service, without systemd.
#
# Installs AGENT (demo_agent) into a scratch unit directory with a systemctl
# stand-in that records its calls and answers "show", checks the unit with
# systemd-analyze verify when it is there, runs the agent in the foreground,
# changes its configuration file and sends SIGHUP (the agent logs what
# changed), stops it with SIGTERM, and removes the service again.
set -uo pipefail

if [[ $# -ne 1 ]]; then
    echo "usage: $0 AGENT" >&2
    exit 2
fi
agent=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
work=$(mktemp -d)
agent_pid=
cleanup() {
    if [[ -n $agent_pid ]] && kill -0 "$agent_pid" 2>/dev/null; then
        kill -KILL "$agent_pid" 2>/dev/null
    fi
    rm -rf "$work"
}
trap cleanup EXIT
failures=0
fail() {
    echo "demo_service: $*" >&2
    failures=$((failures + 1))
}

mkdir -p "$work/units" "$work/bin" "$work/keys"
cat >"$work/bin/systemctl" <<'SCRIPT'
#!/bin/sh
here=$(dirname "$0")
echo "$*" >> "$here/calls"
if [ "$1" = show ]; then
  echo "ActiveState=inactive"
  if [ -f "$here/installed" ]; then echo "LoadState=loaded"; else echo "LoadState=not-found"; fi
fi
exit 0
SCRIPT
chmod 755 "$work/bin/systemctl"
export TARNWICK_SYSTEMCTL=$work/bin/systemctl
export TARNWICK_SYSTEMD_UNIT_DIR=$work/units
unset NOTIFY_SOCKET WATCHDOG_USEC

conf=$work/demo_agent.conf
printf '[demo]\nport=0\nthreads=1\n[paths]\nkeydir=%s\n' "$work/keys" >"$conf"
cd "$work" || exit 1

echo "\$ demo_agent --install -c $conf"
"$agent" --install -c "$conf" 2>"$work/install.log"
status=$?
cat "$work/install.log"
[[ $status -eq 0 ]] || fail "install gave $status"
unit=$work/units/demo_agent.service
if [[ -f $unit ]]; then
    cat "$unit"
else
    fail "no unit file"
fi
grep -qx "ExecStart=$agent --configfile=$conf" "$unit" || fail "unexpected ExecStart"
[[ "$(cat "$work/bin/calls")" == $'daemon-reload\nenable demo_agent.service' ]] ||
    fail "unexpected systemctl calls: $(cat "$work/bin/calls")"
if command -v systemd-analyze >/dev/null; then
    if ! SYSTEMD_LOG_LEVEL=warning systemd-analyze verify --man=no "$unit"; then
        fail "systemd-analyze verify failed"
    fi
fi
touch "$work/bin/installed"
"$agent" --isinstalled -c "$conf" 2>/dev/null
status=$?
[[ $status -eq 0 ]] || fail "isinstalled gave $status"

echo "\$ demo_agent --debug --nossl -c $conf --portfile=$work/port &"
"$agent" --debug --nossl -c "$conf" --portfile="$work/port" >"$work/agent.out" 2>"$work/agent.log" &
agent_pid=$!
for _ in $(seq 100); do
    [[ -s $work/port ]] && break
    sleep 0.1
done
[[ -s $work/port ]] || fail "the agent did not start"
cat "$work/agent.out"

printf '[demo]\nport=0\nthreads=3\n[paths]\nkeydir=%s\n' "$work/keys" >"$conf"
echo "\$ kill -HUP \$agent_pid"
kill -HUP "$agent_pid"
for _ in $(seq 100); do
    grep -q "Configuration reloaded" "$work/agent.log" && break
    sleep 0.1
done
grep -q "INFO  ([0-9]*): Setting threads changed from '1' to '3'$" "$work/agent.log" ||
    fail "the reload did not log the change"
grep "Setting [a-z]* changed\|Configuration reloaded" "$work/agent.log" | sed 's/^.*\(INFO\)/\1/'

echo "\$ kill -TERM \$agent_pid"
kill -TERM "$agent_pid"
wait "$agent_pid"
status=$?
agent_pid=
[[ $status -eq 0 ]] || fail "the agent ended with $status"
tail -n +3 "$work/agent.out"

echo "\$ demo_agent --remove -c $conf"
"$agent" --remove -c "$conf" 2>&1 | sed 's/^.*\(INFO\|ERROR\)/\1/'
[[ -e $unit ]] && fail "the unit file is still there"

if [[ $failures -ne 0 ]]; then
    echo "--- agent log" >&2
    cat "$work/agent.log" >&2
    exit 1
fi
echo "demo_service: all steps passed"
