#!/bin/sh
# test_wireshark.sh - the dissector shows what is on the wire: in a capture of hand-made frames, good
# and bad ones, and in one of the examples on loopback.
#
# usage: test_wireshark.sh <dissector> <folder of the examples>
set -eu
dissector=$1 examples=$2
command -v tshark >/dev/null || { echo "SKIPPED: there is no tshark"; exit 77; }
work=$(mktemp -d)
children=
# shellcheck disable=SC2086 # words on purpose
trap '[ -z "$children" ] || kill $children 2>/dev/null || true; rm -rf "$work"' EXIT

columns() { # <capture> <field...>: a line for each packet that ends a message
    packets=$1
    shift
    # shellcheck disable=SC2046 # words on purpose
    tshark -2 -X "lua_script:$dissector" -r "$packets" -Y tolvane \
        -T fields -E 'separator=|' $(printf ' -e %s' "$@") 2>"$work/errors"
    ! grep -i 'lua:' "$work/errors"
}

expect_same() { # <what> <wanted> <actual>
    [ "$2" = "$3" ] && echo "ok: $1" && return
    printf 'FAILED: %s\n--- wanted\n%s\n--- actual\n%s\n' "$1" "$2" "$3"
    exit 1
}

# ---- hand-made frames

segment() { # <from: I server, O client> <seconds>: standard input as one TCP segment
    printf '%s %d.%06d\n' "$1" $((1000000000 + $2)) 0
    od -Ax -tx1 -v
}

frame() { # <body in printf's form>
    # shellcheck disable=SC2059 # it is a format
    printf "$1" >"$work/body"
    # shellcheck disable=SC2059 # it is a format
    printf "TCP_WATER_MARK$(printf '%021d' 0 | sed 's/0/\\0/g')\\$(printf '%03o' \
        "$(wc -c <"$work/body")")"
    cat "$work/body"
}

message() { # <sequence> <tag> <payload>
    frame "$1\nvelun_tolvane_$2\ntcp://a:1\nvelun_tolvane_payload\n$3"
}

{
    message 0 login 'tcp://a:1\0' | segment O 1
    message 1 request ping | segment O 2
    message 0 reply 'pong\0' | segment I 4
    message 2 request 'in pieces' >"$work/pieces"
    head -c 7 "$work/pieces" | segment O 5
    tail -c +8 "$work/pieces" | head -c 40 | segment O 6
    { tail -c +48 "$work/pieces"; message 3 heartbeat '{sequence:1}, {interval:200},{count:3}\0'; } |
        segment O 7
    message 1 heartbeatack '{sequence:0}\0' | segment I 8
    message 2 reply '' | segment I 10
    message 3 reply 'nobody asked' | segment I 11
    message 9 request 'too early' | segment O 12
    message 4 request 'as it should be' | segment O 13
    message 3 reply 'too late' | segment I 14
    message 5 request 'velun_tolvane_logout\n' | segment O 15
    frame '6\nvelun_tolvane_nonsense\n' | segment O 16
    frame '7\nvelun_tolvane_request\ntcp://a:1' | segment O 17
    frame '' | segment I 18
    printf 'out of step, which no receiver gets over' | segment O 19
} >"$work/hex"
text2pcap -q -t %s.%f -D -T 4711,50000 "$work/hex" "$work/made.pcapng" 2>"$work/errors" ||
    { cat "$work/errors"; exit 1; }

# Number, line, what answers it, what it answers and after how long, heartbeat interval, remarks.
cat >"$work/wanted" <<'END'
1|login 0 tcp://a:1 "tcp://a:1"  |||||
2|request 1 tcp://a:1 "ping"  |3||||
3|reply 0 tcp://a:1 "pong"  ||2|2||
6|request 2 tcp://a:1 "in pieces"  heartbeat 3 tcp://a:1 "{sequence:1}, {interval:200},{count:3}"  |8,7|||200|
7|heartbeatack 1 tcp://a:1 "{sequence:0}"  ||6|1||
8|reply 2 tcp://a:1  ||6|3||
9|reply 3 tcp://a:1 "nobody asked"  |||||
10|request 9 tcp://a:1 "too early" [gap]  |||||Gap in the sequence: 9 instead of 4, the receiver drops the message
11|request 4 tcp://a:1 "as it should be"  |||||
12|reply 3 tcp://a:1 "too late" [gap]  |||||Gap in the sequence: 3 instead of 4, the receiver drops the message
13|request 5 tcp://a:1 "velun_tolvane_logout."  |||||The payload holds a tag: the receiver takes it for a logout
14|unknown 6  |||||Not a message: the receiver drops it
15|request 7 tcp://a:1  |||||No payload marker
16|Refused length  |||||Refused length: the receiver gives the connection up
17|No watermark  |||||No watermark: the receiver gives the connection up
END
expect_same "hand-made frames" "$(cat "$work/wanted")" \
    "$(columns "$work/made.pcapng" frame.number _ws.col.Info tolvane.answer_in tolvane.answer_to \
        tolvane.time tolvane.heartbeat.interval _ws.expert.message)"

# ---- the examples, on loopback

wait_for() { # <pattern> <file> <process>
    tries=0
    until grep -qs -e "$1" "$2"; do
        tries=$((tries + 1))
        kill -0 "$3" 2>/dev/null && [ $tries -le 300 ] || return 1
        sleep 0.1
    done
}

"$examples/server" 127.0.0.1 0 </dev/null >"$work/server" &
server=$! children=$!
wait_for listening "$work/server" $server || { echo "FAILED: no server"; exit 1; }
port=$(sed -n 's/.*on port //p' "$work/server")
dumpcap -q -i lo -f "tcp port $port" -w "$work/live.pcapng" 2>"$work/dumpcap" &
capture=$! children="$server $capture"
wait_for File: "$work/dumpcap" $capture ||
    { echo "SKIPPED: capturing on loopback is not permitted"; exit 0; }

# Heartbeats come or not, as the machine has time; they are left out.
# shellcheck disable=SC2094 # it waits for what the client prints
{ printf 'say %09000d\n' 0; wait_for reply: "$work/client" $server || true; echo logout; } |
    timeout 60 "$examples/client" 127.0.0.1 "$port" alice 1 >"$work/client"
wait_for velun_tolvane_logout "$work/live.pcapng" $capture || true
kill -INT $capture
wait $capture || true
types=$(columns "$work/live.pcapng" tolvane.type tolvane.length | grep '^[0-3]|' | tr '\n' ' ')
expect_same "a capture of the examples" "0|72 2|9064 3|9058 1|73 " "$types"
