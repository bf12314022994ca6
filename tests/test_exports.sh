#!/bin/sh
# test_exports.sh - what leaves the two libraries is what their headers declare; what they need is
# known; each header compiles alone.
#
# usage: test_exports.sh <source folder> <libtolvane.so> <libruvo_timer.so> <cc> <c++>
set -eu
source=$1 tolvane=$2 timer=$3 cc=$4 cxx=$5

expect_same() { # <what> <wanted> <actual>
    [ "$2" = "$3" ] && return
    printf '%s\n--- wanted\n%s\n--- actual\n%s\n' "$1" "$2" "$3"
    exit 1
}

# Prototypes and objects begin at the start of a line.
declared() { # <header>
    sed -n -e '/^typedef/d' -e 's/^[a-z].*[ *]\([a-z_]*\)(.*/\1/p' \
        -e 's/^extern .*[ *]\([a-z_]*\)[[;].*/\1/p' "$1" | sort
}

check_library() { # <library> <header> <names in its dynamic section>
    expect_same "exported by $1" "$(declared "$2")" \
        "$(nm -D --defined-only "$1" | sed 's/.* //' | sort)"
    expect_same "name and needs of $1" "$3" \
        "$(readelf -d "$1" | sed -n 's/.*(\(NEEDED\|SONAME\)).*\[\(.*\)\]/\1 \2/p' | sort | xargs)"
    # shellcheck disable=SC2086 # words on purpose
    "$cc" $CFLAGS -x c -std=c11 -Wall -Wextra -Wpedantic -Werror -fsyntax-only "$2"
    # shellcheck disable=SC2086 # words on purpose
    "$cxx" $CXXFLAGS -x c++ -std=c++17 -Wall -Wextra -Wpedantic -Werror -fsyntax-only "$2"
}

check_library "$tolvane" "$source/include/tolvane.h" \
    "NEEDED libc.so.6 NEEDED libruvo_timer.so SONAME libtolvane.so.1"
check_library "$timer" "$source/timer/ruvo_timer.h" "NEEDED libc.so.6 SONAME libruvo_timer.so"
