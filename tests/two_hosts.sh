#!/bin/bash
# The example server and client as if on two hosts: in two network namespaces with a cable between
# them, which is pulled out and put back.
#
#   two_hosts.sh FOLDER    of the example programs
#
# Exits with 77 where network namespaces cannot be made.
set -u

programs=$1
work=$(mktemp -d)
a=tolvane-a-$$ b=tolvane-b-$$

cleanup() {
    # shellcheck disable=SC2046 # words on purpose
    kill $(jobs -p)
    ip netns del "$a"
    ip netns del "$b"
    rm -rf "$work"
} 2>/dev/null
trap cleanup EXIT

if ! { ip netns add "$a" && ip netns add "$b" &&
    ip -n "$a" link add wire type veth peer name wire netns "$b"; } 2>"$work/why"; then
    echo "skipped: no network namespaces here: $(head -n 1 "$work/why")"
    exit 77
fi
ip -n "$a" address add 10.213.0.1/30 dev wire
ip -n "$b" address add 10.213.0.2/30 dev wire
ip -n "$a" link set wire up
ip -n "$b" link set wire up

now_ms() { date +%s%3N; }

# Wait until FILE has COUNT lines that match PATTERN, for at most 10 seconds.
expect() { # FILE PATTERN [COUNT]
    local deadline=$(($(now_ms) + 10000))
    until [ "$(grep -c "$2" "$work/$1")" -ge "${3:-1}" ]; do
        [ "$(now_ms)" -le "$deadline" ] ||
            { echo "not seen from the $1: $2"; cat "$work/server" "$work/client"; exit 1; }
        sleep 0.01
    done
}

# Both examples send a heartbeat a second and give up after two that went unanswered.
expect_found() { # FILE PATTERN
    expect "$1" "$2"
    local took=$(($(now_ms) - pulled))
    echo "the $1 found the lost link after $took ms, between 2000 and 3000 are promised"
    [ "$took" -ge 1900 ] && [ "$took" -le 3500 ] || exit 1
}

ip netns exec "$a" "$programs/server" 10.213.0.1 0 </dev/null >"$work/server" 2>&1 &
expect server "listening on port"
port=$(sed -n 's/.*listening on port //p' "$work/server")
mkfifo "$work/input"
ip netns exec "$b" "$programs/client" 10.213.0.1 "$port" far 1 <"$work/input" >"$work/client" 2>&1 &
exec 3>"$work/input"
expect server "tcp://far:1 has logged in"
echo "say over the wire" >&3
expect client "reply: OVER THE WIRE"
sleep 1.5 # idle, with the last heartbeat answered up to a second ago

ip -n "$a" link set wire down
pulled=$(now_ms)
expect_found client "no link to the server"
expect_found server "tcp://far:1 has fallen silent"

ip -n "$a" link set wire up
expect server "tcp://far:1 has logged in" 2
echo "say back again" >&3
expect client "reply: BACK AGAIN"
echo "the client came back after the link"
