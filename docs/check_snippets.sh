#!/bin/sh
# Compile every piece of C in the pages given, and run the guide's first two programs against each
# other.
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

# The server wants a port. If somebody else has the one tried, it ends, and the client gets no reply
# or not this one: try another.
reply=
port=$((10000 + $$ % 10000))
for try in 1 2 3 4 5; do
    timeout 60 "$work/server" "$port" >/dev/null &
    server=$!
    for wait in 1 2 3 4 5 6 7 8 9 10; do
        reply=$(timeout 5 "$work/client" "$port" hello 2>&1) && [ "$reply" = HELLO ] && break 2
        sleep 0.1
    done
    kill "$server" 2>/dev/null || true
    port=$((port + 101))
done
echo "the client prints: $reply"
[ "$reply" = HELLO ]
