#!/bin/sh
# Compile every piece of C in the pages given, and run the guide's whole programs against each other.
#
#   check_snippets.sh CC LIBRARY_FOLDER SOURCE_FOLDER PAGE...
#
# A piece is a block that begins with ```c. One that begins with "// NAME.c" is a whole program and
# is linked; any other is compiled alone, behind the includes that the guide names.
set -eu
cc="$1 ${CFLAGS-}"
libraries=$2
source=$3
shift 3

work=$(mktemp -d)
server=
trap '[ -z "$server" ] || kill "$server" 2>/dev/null || true; rm -rf "$work"' EXIT
flags="-std=c11 -D_GNU_SOURCE -Wall -Wextra -Wpedantic -Werror -I$source/include -I$source/timer"

awk -v work="$work" '
    /^```c$/  { inside = 1; name = ""; start = FNR; next }
    /^```/    { inside = 0; next }
    inside && name == "" {
        whole = match($0, /^\/\/ [a-z_]+\.c /)
        pieces++
        name = whole ? work "/" substr($0, 4, index($0, ".c") - 2) : work "/piece" pieces ".c"
        if (!whole)
            print "#include <ruvo_timer.h>\n#include <stdlib.h>\n#include <string.h>\n" \
                  "#include <tolvane.h>" > name
        print "#line " start + 1 " \"" FILENAME "\"" > name
    }
    inside    { print > name }' "$@"

count=0
for piece in "$work"/*.c; do
    case $piece in
    */piece*) $cc $flags -Wno-unused -fsyntax-only "$piece" ;;
    *) $cc $flags "$piece" -o "${piece%.c}" -L"$libraries" -Wl,-rpath,"$libraries" \
        -ltolvane -lruvo_timer ;;
    esac
    count=$((count + 1))
done
echo "$count pieces compile"

server=
port=$((10000 + $$ % 10000))

# converse PATTERN SERVER_COMMAND CLIENT_COMMAND: both with the port behind the program's name. If
# somebody else has the one tried, the server ends, and the client gets no reply or not this one:
# try another.
converse() {
    # shellcheck disable=SC2086 # words on purpose
    for try in 1 2 3 4 5; do
        port=$((port + 101))
        timeout 60 "$work/${2%% *}" "$port" ${2#* } >"$work/output" 2>&1 &
        server=$!
        for wait in 1 2 3 4 5 6 7 8 9 10; do
            output=$(timeout 20 "$work/${3%% *}" "$port" ${3#* } 2>&1) || true
            # shellcheck disable=SC2254 # a pattern on purpose
            case $output in $1) echo "${3%% *} prints: $output" && return ;; esac
            sleep 0.1
        done
        kill "$server" 2>/dev/null || true
    done
    echo "${3%% *} prints: $output"
    return 1
}

await() { # PATTERN: a line of the epoll client's, for 20 s at most
    timeout 20 sh -c 'until grep -q "$1" "$2"; do sleep 0.1; done' - "$1" "$work/lines"
}

converse HELLO "server _" "client hello"

# A client in its own loop comes back to a server that was away.
timeout 60 "$work/epoll_client" "$port" hello >"$work/lines" &
client=$!
await HELLO
kill "$server"
await "no link"
timeout 60 "$work/server" "$port" &
server=$!
: >"$work/lines"
await HELLO
kill "$client" "$server"

converse "* of 100 *" "two_ways hub" "two_ways sensor"
[ "$output" = "100 of 100 values confirmed, 0 time-outs" ] # at the first run that got through
wait "$server"
grep '[1-9][0-9]* of .* answered' "$work/output"
