#!/bin/sh
# test_tvcat.sh - tvcat answers tvcat, and tells in its exit status when something was not answered.
#
# usage: test_tvcat.sh <tvcat> <examples/server>
set -eu
tvcat=$1 example=$2
work=$(mktemp -d)
servers=
# shellcheck disable=SC2086 # words on purpose
trap 'kill $servers 2>/dev/null || true; rm -rf "$work"' EXIT

start() { # <command...>: a server, for a minute at most, whose port is then in $port
    : >"$work/server" # the last one's port is not to be taken for this one's
    timeout 60 "$@" </dev/null >"$work/server" 2>&1 &
    servers="$servers $!"
    until port=$(sed -n 's/.*listening on port //p' "$work/server" | grep .); do
        kill -0 $! # it is still there
        sleep 0.1
    done
}

expect() { # <status> <pattern of the whole output> <command...>
    wanted=$1 pattern=$2
    shift 2
    status=0
    output=$(timeout 60 "$@" 2>&1) || status=$?
    # shellcheck disable=SC2254 # a pattern on purpose
    case $status:$output in $wanted:$pattern) return ;; esac
    echo "FAILED: $*: status $status instead of $wanted, output '$output' instead of '$pattern'"
    exit 1
}

printf 'one\n\ntwo words\nlast, without an end' >"$work/lines"
start "$tvcat" -l 127.0.0.1 0
expect 0 "$(cat "$work/lines")" "$tvcat" 127.0.0.1 "$port" <"$work/lines"
expect 0 "$(cat "$work/lines")" sed 1d "$work/server" # the requests
expect 0 "" "$tvcat" 127.0.0.1 "$port" me </dev/null
start "$tvcat" -l -a pong 127.0.0.1 0
echo ping | expect 0 pong "$tvcat" -t 9000 127.0.0.1 "$port" me
# A request that fits while its reply does not, and one behind it.
{ head -c 65440 /dev/zero | tr '\0' x; echo; echo short; } >"$work/lines"
start "$tvcat" -l 127.0.0.1 0
expect 0 "too long to be answered
short" "$tvcat" 127.0.0.1 "$port" <"$work/lines"

# The loop has 16 places; who comes later is served when one leaves.
mkfifo "$work/silent"
exec 3<>"$work/silent"
for _ in $(seq 16); do
    "$tvcat" 127.0.0.1 "$port" <&3 &
    servers="$servers $!"
done
timeout 60 sh -c 'until grep -q full "$1"; do sleep 0.1; done' - "$work/server"
echo early | expect 1 "*no reply within 300 ms" "$tvcat" -t 300 127.0.0.1 "$port"
kill $!
echo late | expect 0 late "$tvcat" 127.0.0.1 "$port"

start "$example" 127.0.0.1 0
echo lose this | expect 1 "*no reply within 100 ms" "$tvcat" -t 100 127.0.0.1 "$port"
seq 20000 | tr '\n' ' ' | expect 1 "*too long*" "$tvcat" 127.0.0.1 "$port"
while read -r pattern arguments; do
    # shellcheck disable=SC2086 # words on purpose
    expect 1 "*$pattern*" "$tvcat" $arguments </dev/null
done <<END
refused 127.0.0.1 1
in?use -l 127.0.0.1 $port
names localhost 4711
names -l example.com 0
number 127.0.0.1 http
number -t 5s 127.0.0.1 4711
number -t 99999999999 127.0.0.1 4711
server -l -t 500 127.0.0.1 0
server -a pong 127.0.0.1 4711
characters 127.0.0.1 $port sixteen_letters_
wanted 127.0.0.1
argument 127.0.0.1 4711 me you
option*--help -x 127.0.0.1 4711
END
expect 0 "*-a ANSWER*" "$tvcat" --help
expect 0 "tvcat 1.*" "$tvcat" --version
echo ok
