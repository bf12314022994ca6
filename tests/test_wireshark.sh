#!/bin/sh
# test_wireshark.sh - the dissector shows what is on the wire, in a capture of hand-made frames, good
# and bad ones.
#
# usage: test_wireshark.sh <dissector>
set -eu
dissector=$1
command -v tshark >/dev/null || { echo "SKIPPED: there is no tshark"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Newer releases run no scripts for root, so it is somebody else who reads the capture.
as_user=
if [ "$(id -u)" = 0 ]; then
    as_user="setpriv --reuid=65534 --regid=65534 --clear-groups env HOME=$work"
    chmod 755 "$work"
fi
cp "$dissector" "$work/tolvane.lua"

segment() { # <from: I server, O client> <seconds>: standard input as one TCP segment
    printf '%s %d.000000\n' "$1" $((1000000000 + $2))
    od -Ax -tx1 -v
}

frame() { # <body in printf's form>
    # shellcheck disable=SC2059 # it is a format
    printf "$1" >"$work/body"
    size=$(wc -c <"$work/body")
    printf TCP_WATER_MARK
    head -c 20 /dev/zero # the end of its field, and the upper half of the length
    # shellcheck disable=SC2059 # it is a format
    printf "$(printf '\\%03o' $((size / 256)) $((size % 256)))"
    cat "$work/body"
}

message() { # <sequence> <tag> <payload>
    frame "$1\nvelun_tolvane_$2\ntcp://a:1\nvelun_tolvane_payload\n$3"
}

{
    message 0 login 'tcp://a:1\0' | segment O 1
    message 1 request ping | segment O 2
    message 0 reply 'pong\0' | segment I 4
    message 2 request "in pieces of $(printf '%0300d' 0)" >"$work/pieces"
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
text2pcap -q -t %s.%f -D -T 4711,50000 "$work/hex" "$work/made.pcapng"

# For each packet that ends a message: number, types, lengths, line, what answers it, what it
# answers and after how long, heartbeat interval, remarks.
# shellcheck disable=SC2086 # words on purpose
$as_user tshark -2 -X "lua_script:$work/tolvane.lua" -r "$work/made.pcapng" -Y tolvane -T fields -E 'separator=|' \
    -e frame.number -e tolvane.type -e tolvane.length -e _ws.col.Info -e tolvane.answer_in \
    -e tolvane.answer_to -e tolvane.time -e tolvane.heartbeat.interval -e _ws.expert.message \
    >"$work/shown"
diff - "$work/shown" <<'END'
1|0|64|login 0 tcp://a:1 "tcp://a:1"  |||||
2|2|60|request 1 tcp://a:1 "ping"  |3||||
3|3|59|reply 0 tcp://a:1 "pong"  ||2|2||
6|2,4|369,97|request 2 tcp://a:1 "in pieces of 00000000000000000000000000000000000000000000000"  heartbeat 3 tcp://a:1 "{sequence:1}, {interval:200},{count:3}"  |8,7|||200|
7|5|74|heartbeatack 1 tcp://a:1 "{sequence:0}"  ||6|1||
8|3|54|reply 2 tcp://a:1  ||6|3||
9|3|66|reply 3 tcp://a:1 "nobody asked"  |||||
10|2|65|request 9 tcp://a:1 "too early" [gap]  |||||Gap in the sequence: 9 instead of 4, the receiver drops the message
11|2|71|request 4 tcp://a:1 "as it should be"  |||||
12|3|62|reply 3 tcp://a:1 "too late" [gap]  |||||Gap in the sequence: 3 instead of 4, the receiver drops the message
13|2|77|request 5 tcp://a:1 "velun_tolvane_logout."  |||||The payload holds a tag: the receiver takes it for a logout
14|6|25|unknown 6  |||||Not a message: the receiver drops it
15|2|33|request 7 tcp://a:1  |||||No payload marker
16||0|Refused length  |||||Refused length: the receiver gives the connection up
17|||No watermark  |||||No watermark: the receiver gives the connection up
END
