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

expect() { # <status> <output> <command...>
    wanted=$1 text=$2
    shift 2
    status=0
    output=$(timeout 60 "$@") || status=$?
    [ "$status" = "$wanted" ] && [ "$output" = "$text" ] && return
    echo "FAILED: $*: status $status instead of $wanted, output '$output' instead of '$text'"
    exit 1
}

printf 'one\n\ntwo words\nlast, without an end' >"$work/lines"
start "$tvcat" -l 127.0.0.1 0
expect 0 "$(cat "$work/lines")" "$tvcat" 127.0.0.1 "$port" <"$work/lines"
expect 0 "$(cat "$work/lines")" sed 1d "$work/server" # the requests
expect 0 "" "$tvcat" 127.0.0.1 "$port" me </dev/null
start "$tvcat" -l -a pong 127.0.0.1 0
echo ping | expect 0 pong "$tvcat" -t 9000 127.0.0.1 "$port" me
start "$example" 127.0.0.1 0
echo lose this | expect 1 "" "$tvcat" -t 100 127.0.0.1 "$port"
seq 20000 | tr '\n' ' ' | expect 1 "" "$tvcat" 127.0.0.1 "$port" # too long
expect 1 "" "$tvcat" 127.0.0.1 1 </dev/null
expect 1 "" "$tvcat" 127.0.0.1
echo ok
