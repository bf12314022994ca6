#!/bin/sh
# readme_test.sh - the README's server answers the README's client.
#
# usage: readme_test.sh <server> <client>
# The programs take the port from the command line: one that is in use ends the server, and
# another one is tried.
for port in $(seq $((20000 + $$ % 9000)) 101 30000); do
    "$1" "$port" &
    server=$!
    for _ in $(seq 100); do
        kill -0 $server 2>/dev/null || break
        if reply=$("$2" "$port"); then
            echo "the reply: $reply"
            kill $server
            [ "$reply" = hello ]
            exit
        fi
        sleep 0.05
    done
    kill $server && exit 1 # it runs and does not answer
done 2>/dev/null
exit 1
