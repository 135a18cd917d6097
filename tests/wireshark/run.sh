#!/usr/bin/env bash
# The Wireshark dissector (tools/wireshark/tarnwick.lua) on a real capture:
#
#   run.sh AGENT CONTROL
#
# starts AGENT (demo_agent) with plain sockets on a free port of 127.0.0.1,
# captures that port on the loopback interface with tcpdump, and runs:
#   - CONTROL (demo_control) three times: version, dirlist and kick (which
#     the agent answers with an error reply);
#   - a raw client (bash's /dev/tcp) that writes a HeartBeatEvent and a
#     GetVersionEvent in one write, so that one segment holds two messages,
#     then a KickEvent with a binary payload of 16 MiB, which reaches
#     tshark in many segments; a KickEvent whose arguments hold escaped
#     text and a group; a GetVersionEvent whose header is in little-endian
#     order (on a little-endian host, where the agent takes it in); and last
#     a header with a wrong magic, after which the agent ends the
#     connection. It chooses their tokens: 1, 168496141, 4294967295, 77 and
#     168496142.
# Then tshark decodes the capture with the dissector, once on the port given
# by the preference and once by the heuristic alone, and the test compares
# the event names, kinds, tokens, flags, argument names and values and the
# request/reply pairs that it prints with what the session sent.
#
# Exit status 0 when all is as expected, 77 (skipped) when tshark or tcpdump
# is missing or capturing on the loopback interface is not permitted, 1
# otherwise.
set -uo pipefail

SKIP=77
if [[ $# -ne 2 ]]; then
    echo "usage: $0 AGENT CONTROL" >&2
    exit 2
fi
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
dissector=$(cd "$here/../../tools/wireshark" && pwd)/tarnwick.lua
agent=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
control=$(cd "$(dirname "$2")" && pwd)/$(basename "$2")

for tool in tshark tcpdump; do
    if ! command -v "$tool" >/dev/null 2>&1; then
        echo "SKIP: $tool is not installed (Debian package $tool; scripts/install-deps.sh installs it)"
        exit $SKIP
    fi
done
if ! tshark -v 2>/dev/null | grep -q "with Lua"; then
    echo "SKIP: this tshark is built without Lua, so it can't load the dissector"
    exit $SKIP
fi

work=$(mktemp -d)
agent_pid=
tcpdump_pid=
reader_pid=
cleanup() {
    exec 3>&- 2>/dev/null
    for pid in $reader_pid $tcpdump_pid $agent_pid; do
        kill -KILL "$pid" 2>/dev/null && wait "$pid" 2>/dev/null
    done
    rm -rf "$work"
}
trap cleanup EXIT
# A timeout of ctest ends the test with SIGTERM: clean up then too.
trap 'exit 1' INT TERM HUP

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# wait_for SECONDS COMMAND...: runs COMMAND every 50 ms until it succeeds.
wait_for() {
    local tries=$(($1 * 20))
    shift
    while ((tries-- > 0)); do
        "$@" && return 0
        sleep 0.05
    done
    return 1
}

cd "$work" || exit 1
mkdir keys listing tmp
# The agent keeps the 16 MiB payload in a spill file of its event cache,
# which lies under the temporary directory: this one goes with the test.
export TMPDIR=$work/tmp
printf 'first line\n' >listing/notes.txt

"$agent" --port=0 --portfile="$work/port" --threads=2 --keydir="$work/keys" --nossl \
    >agent.out 2>agent.log &
agent_pid=$!
wait_for 10 test -s port || {
    cat agent.out agent.log >&2
    fail "the agent did not start"
}
port=$(cat port)

# tcpdump drops its privileges to its own user by default, which could not
# write into this directory; -Z keeps the user that runs the test. Immediate
# mode and a large buffer: nothing waits in the kernel and nothing of the
# 16 MiB message is dropped.
tcpdump -i lo -n -B 65536 --immediate-mode -U -Z "$(id -un)" -w "$work/capture.pcap" \
    "tcp port $port" 2>tcpdump.log &
tcpdump_pid=$!
if ! wait_for 10 grep -qs "listening on" tcpdump.log; then
    if ! kill -0 "$tcpdump_pid" 2>/dev/null; then
        echo "SKIP: tcpdump can't capture on the loopback interface here:"
        sed 's/^/  /' tcpdump.log
        tcpdump_pid=
        exit $SKIP
    fi
    fail "tcpdump did not start listening"
fi

# run EXPECTED-STATUS ARGS...: one command of the control tool.
run() {
    local expected=$1
    shift
    "$control" --port="$port" --keydir="$work/keys" --nossl --quiet "$@" >control.out 2>control.log
    local status=$?
    if [[ $status -ne $expected ]]; then
        cat control.out control.log >&2
        fail "demo_control $* ended with status $status, expected $expected"
    fi
    cat control.out >>session.out
}
run 0 --command=version
version=$(awk '$1 == "version" { print $2 }' control.out)
[[ -n $version ]] || fail "demo_control printed no version"
run 0 --command=dirlist --path=listing
run 1 --command=kick

# The raw client. word N: the four bytes of N, most significant first, as
# printf escapes; header AGENTID ACT SIZE TYPE FLAGS: a whole header.
word() {
    printf '\\x%02x\\x%02x\\x%02x\\x%02x' $((($1 >> 24) & 255)) $((($1 >> 16) & 255)) \
        $((($1 >> 8) & 255)) $(($1 & 255))
}
le() {
    printf '\\x%02x\\x%02x\\x%02x\\x%02x' $(($1 & 255)) $((($1 >> 8) & 255)) \
        $((($1 >> 16) & 255)) $((($1 >> 24) & 255))
}
header() {
    printf '%b' "$(word "$1")$(word "$2")$(word "$3")$(word "$4")$(word "$5")$(word 393729)$(word 0)$(word 0)"
}
{
    header 0 1 0 15 0           # HeartBeatEvent, no payload
    header 0 168496141 0 17 0   # GetVersionEvent, no payload
} >two.bin
{
    header 0 4294967295 16777216 11 4   # KickEvent, binary
    head -c 16777216 /dev/zero
} >big.bin

exec 3<>"/dev/tcp/127.0.0.1/$port" || fail "the raw client could not connect"
cat <&3 >raw.out &
reader_pid=$!
cat two.bin >&3 || fail "the raw client could not write"
wait_for 10 grep -qa "demo_agent" raw.out || fail "no reply to the raw GetVersionEvent"
cat big.bin >&3 || fail "the raw client could not write 16 MiB"
wait_for 10 grep -qa "Unsupported command: Kick." raw.out ||
    fail "no reply to the raw KickEvent"
# A KickEvent with arguments that the agent does not look at: escaped text
# and a group of two members. The agent answers with an error reply.
xml='<?xml version="1.0" encoding="UTF-8"?>
<message>
 <param name="a&amp;b">x &lt; y &#x263A; &#65;</param>
 <param name="grp">
  <param name="k1">v1</param>
  <param name="k2"/>
 </param>
 <param name="z"/>
</message>
'
xml_size=$(($(printf '%s' "$xml" | wc -c) + 1))
{
    header 0 77 "$xml_size" 11 0
    printf '%s\0' "$xml"
} >args.bin
cat args.bin >&3
wait_for 10 eval '[[ $(grep -ac "Unsupported command: Kick." raw.out) -ge 2 ]]' ||
    fail "no reply to the KickEvent with arguments"
# A GetVersionEvent whose header is in little-endian order: the agent, on a
# little-endian host, takes it in and replies in network order.
if [[ $(printf '\001\000' | od -An -tu2 | tr -d ' ') == 1 ]]; then
    little_endian=1
    printf '%b' "$(le 0)$(le 168496142)$(le 0)$(le 17)$(le 0)$(le 393729)$(le 0)$(le 0)" >&3
    wait_for 10 eval '[[ $(grep -ac "demo_agent" raw.out) -ge 2 ]]' ||
        fail "no reply to the little-endian GetVersionEvent"
fi
# Last, a header with a wrong magic: the agent ends the connection.
printf '%b' "$(word 0)$(word 7)$(word 0)$(word 17)$(word 0)$(word 3735928559)$(word 0)$(word 0)" >&3
wait_for 10 eval '! kill -0 $reader_pid 2>/dev/null' ||
    fail "the agent did not end the connection after an invalid header"
exec 3>&-
wait "$reader_pid" 2>/dev/null
reader_pid=

# The last segments on their way to the capture file, then stop.
sleep 0.2
kill -INT "$tcpdump_pid"
wait "$tcpdump_pid"
tcpdump_pid=
kill -TERM "$agent_pid"
wait "$agent_pid" || fail "the agent did not stop cleanly"
agent_pid=
if grep -q "dropped by kernel" tcpdump.log && ! grep -q "^0 packets dropped by kernel" tcpdump.log; then
    sed 's/^/  /' tcpdump.log >&2
    fail "the capture lost packets"
fi

# decode NAME TSHARK-OPTIONS...: the dissector's fields, one line per frame
# that holds a message, into NAME. Fields are tab-separated; the values of a
# field that occurs more than once (several messages in a frame, several
# arguments) are joined by ';'.
fields=(frame.number tcp.segment.count tarnwick.event tarnwick.kind tarnwick.act tarnwick.flags
    tarnwick.size tarnwick.arg tarnwick.arg.value tarnwick.reply_in tarnwick.request_in
    tarnwick.bad_magic tarnwick.little_endian tarnwick.member tarnwick.member.value)
decode() {
    local name=$1
    shift
    local args=()
    for f in "${fields[@]}"; do
        args+=(-e "$f")
    done
    if ! tshark -2 -n -X "lua_script:$dissector" "$@" -r capture.pcap -Y tarnwick \
        -T fields -E "aggregator=;" "${args[@]}" >"$name" 2>"$name.err"; then
        cat "$name.err" >&2
        fail "tshark failed"
    fi
    if grep -qi "lua.*error\|error.*lua" "$name.err"; then
        cat "$name.err" >&2
        fail "the dissector raised an error"
    fi
}
decode by_port -o "tarnwick.tcp_port:$port"
decode by_heuristic -o "tarnwick.tcp_port:0" -o "tcp.try_heuristic_first:TRUE"

if ! diff by_port by_heuristic >/dev/null; then
    diff by_port by_heuristic >&2
    fail "the heuristic dissector shows the capture differently from the port"
fi

# check WHAT EXPECTED ACTUAL: the two texts are equal.
check() {
    if [[ "$2" != "$3" ]]; then
        echo "FAIL: $1 differ; expected:" >&2
        echo "$2" | sed 's/^/  /' >&2
        echo "got:" >&2
        echo "$3" | sed 's/^/  /' >&2
        echo "tshark printed:" >&2
        sed 's/^/  /' by_port >&2
        exit 1
    fi
}

# The messages in capture order, one a line: event kind token flags size.
# The control tool's tokens are random; they are named T1, T2 ... in order of
# first appearance, so that a reply must carry its request's token. The raw
# client's tokens are the values it wrote.
messages=$(awk -F'\t' '
    {
        n = split($3, event, ";"); split($4, kind, ";"); split($5, act, ";")
        split($6, flags, ";"); split($7, size, ";")
        for (i = 1; i <= n; i++) {
            token = act[i]
            if (token != 1 && token != 77 && token != 168496141 && token != 168496142 &&
                token != 4294967295) {
                if (!(token in names))
                    names[token] = "T" (++count)
                token = names[token]
            }
            print event[i], kind[i], token, flags[i], (kind[i] == "request" ? size[i] : "-")
        }
    }' by_port)
expected_messages="IdentityEvent request T1 0x00000000 199
GetVersionEvent request T2 0x00000000 0
GetVersionEvent reply T2 0x00000002 -
IdentityEvent request T3 0x00000000 199
DirListEvent request T4 0x00000000 97
DirListEvent reply T4 0x00000002 -
IdentityEvent request T5 0x00000000 199
KickEvent request T6 0x00000000 0
ErrorEvent reply T6 0x00000002 -
HeartBeatEvent request 1 0x00000000 0
GetVersionEvent request 168496141 0x00000000 0
GetVersionEvent reply 168496141 0x00000002 -
KickEvent request 4294967295 0x00000004 16777216
ErrorEvent reply 4294967295 0x00000006 -
KickEvent request 77 0x00000000 $xml_size
ErrorEvent reply 77 0x00000002 -"
if [[ -n ${little_endian:-} ]]; then
    expected_messages+="
GetVersionEvent request 168496142 0x00000000 0
GetVersionEvent reply 168496142 0x00000002 -"
fi
check "the messages" "$expected_messages" "$messages"

# The arguments of all messages in capture order, name=value, but for the
# message with a group, which comes after. The error reply to the binary
# KickEvent keeps the binary flag, so it shows no arguments.
arguments=$(awk -F'\t' '
    $8 != "" && $14 == "" {
        n = split($8, name, ";"); split($9, value, ";")
        for (i = 1; i <= n; i++)
            print name[i] "=" value[i]
    }' by_port)
identity="agentid=0
login=operator
password=demo
type=3"
expected_arguments="$identity
name=demo_agent
version=$version
$identity
path=listing
count=1
entry.1=file notes.txt (11 bytes)
path=listing
$identity
errormsg=Unsupported command: Kick.
errornr=38
name=demo_agent
version=$version
errormsg=Unsupported command: Kick.
errornr=38"
if [[ -n ${little_endian:-} ]]; then
    expected_arguments+="
name=demo_agent
version=$version"
fi
check "the arguments" "$expected_arguments" "$arguments"
# The message with a group: names, values (unescaped), members and their
# values. The group itself has no value.
group=$(awk -F'\t' '$14 != "" { print $8 " | " $9 " | " $14 " | " $15 }' by_port)
check "the arguments of a group" "a&b;grp;z | x < y ☺ A; | k1;k2 | v1;" "$group"

# Requests and replies: each reply names the frame of its request, and that
# frame holds a request with the same token that names the reply's frame.
pairs=$(awk -F'\t' '
    {
        frame = $1
        n = split($4, kind, ";"); split($5, act, ";")
        for (i = 1; i <= n; i++)
            if (kind[i] == "request")
                requests[frame] = requests[frame] " " act[i]
        replyin[frame] = $10
        if ($11 != "") {
            split($5, token, ";")
            replies[++count] = frame " " $11 " " token[1]
        }
    }
    END {
        for (i = 1; i <= count; i++) {
            split(replies[i], r, " ")
            ok = index(requests[r[2]] " ", " " r[3] " ") > 0 &&
                 index(";" replyin[r[2]] ";", ";" r[1] ";") > 0
            print r[3], (r[2] < r[1] ? "after" : "BEFORE"), (ok ? "matched" : "UNMATCHED")
        }
    }' by_port)
expected_pairs=$(awk -F'\t' '$11 != "" { split($5, t, ";"); print t[1], "after", "matched" }' by_port)
check "the request/reply pairs" "$expected_pairs" "$pairs"
replies=$((6 + ${little_endian:-0}))
[[ $(wc -l <<<"$pairs") -eq $replies ]] || fail "expected $replies replies, got: $pairs"
[[ $(awk -F'\t' '$10 != ""' by_port | wc -l) -eq $replies ]] ||
    fail "expected $replies requests with a reply: $(cat by_port)"

# The 16 MiB message: one message, reassembled from many segments.
segments=$(awk -F'\t' '$7 == "16777216" { print $2 }' by_port)
[[ -n $segments && $segments -gt 1 ]] ||
    fail "the 16 MiB message was not shown as one reassembled message (segments: '$segments')"
# Two messages in the raw client's first segment.
grep -qF $'\tHeartBeatEvent;GetVersionEvent\t' by_port ||
    fail "the raw client's two messages are not shown in one frame"

# The invalid header: flagged, in the last frame of the raw client's
# connection, and nothing after it.
invalid=$(awk -F'\t' '$12 != "" { print NR ":" $3 ":" $12 }' by_port)
check "the invalid header" "$(wc -l <by_port)::1" "$invalid"
# The little-endian header: shown with its warning, and no other.
warned=$(awk -F'\t' '$13 != "" { print $3 ":" $5 ":" $13 }' by_port)
check "the little-endian warnings" "${little_endian:+GetVersionEvent:168496142:1}" "$warned"

echo "ok: $(wc -l <<<"$messages") messages in $(wc -l <by_port) frames; the 16 MiB message from $segments segments"
