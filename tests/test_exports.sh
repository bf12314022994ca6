#!/bin/sh
# test_exports.sh - what leaves the two libraries is what their linker scripts list and what their
# headers declare; what they need is known; each header compiles alone.
#
# usage: test_exports.sh <source folder> <libtolvane.so> <libruvo_timer.so> <cc> <c++> [<sanitizers>]
set -eu
source=$1 tolvane=$2 timer=$3 cc=$4 cxx=$5 sanitizers=${6-}

expect_same() { # <what> <wanted> <actual>
    [ "$2" = "$3" ] && return
    printf '%s\n--- wanted\n%s\n--- actual\n%s\n' "$1" "$2" "$3"
    exit 1
}

listed() { # <linker script>
    sed -e 's|/\*.*||' -e '/^local/,$d' -e '/^global/d' "$1" | tr -s '{; ' '\n' | grep . | sort
}

# Prototypes and objects begin at the start of a line.
declared() { # <header>
    sed -n -e '/^typedef/d' -e 's/^[a-z].*[ *]\([a-z_]*\)(.*/\1/p' \
        -e 's/^extern .*[ *]\([a-z_]*\)[[;].*/\1/p' "$1" | sort
}

check_library() { # <library> <header> <linker script> <names in its dynamic section>
    exported=$(nm -D --defined-only "$1" | sed 's/.* //' | sort)
    expect_same "declared in $2" "$exported" "$(declared "$2")"
    expect_same "listed in $3" "$exported" "$(listed "$3")"
    [ -n "$sanitizers" ] || expect_same "name and needs of $1" "$4" \
        "$(readelf -d "$1" | sed -n 's/.*(\(NEEDED\|SONAME\)).*\[\(.*\)\]/\1 \2/p' | sort | xargs)"
    # shellcheck disable=SC2086 # words on purpose
    "$cc" $CFLAGS -x c -std=c11 -Wall -Wextra -Wpedantic -Werror -fsyntax-only "$2"
    # shellcheck disable=SC2086 # words on purpose
    "$cxx" $CXXFLAGS -x c++ -std=c++17 -Wall -Wextra -Wpedantic -Werror -fsyntax-only "$2"
}

check_library "$tolvane" "$source/include/tolvane.h" "$source/src/tolvane.map" \
    "NEEDED libc.so.6 NEEDED libruvo_timer.so SONAME libtolvane.so.1"
check_library "$timer" "$source/timer/ruvo_timer.h" "$source/timer/ruvo_timer.map" \
    "NEEDED libc.so.6 SONAME libruvo_timer.so"
