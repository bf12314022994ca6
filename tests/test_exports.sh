#!/bin/sh
# test_exports.sh - what leaves the two libraries is what their linker scripts list and what their
# headers declare; what they need is known; each header compiles alone.
#
# usage: test_exports.sh <source folder> <libtolvane.so> <libruvo_timer.so> <cc> <c++> <sanitizers>
set -eu
source=$1 tolvane=$2 timer=$3 cc=$4 cxx=$5 sanitizers=$6
failures=0

expect_same() { # <what> <wanted> <actual>
    [ "$2" = "$3" ] && return
    printf '%s\n--- wanted\n%s\n--- actual\n%s\n' "$1" "$2" "$3"
    failures=$((failures + 1))
}

listed() { # <linker script>
    sed -e 's|/\*.*||' -e '/^local/,$d' -e '/^global/d' "$1" | tr -s '{; ' '\n' | grep . | sort
}

# Prototypes and objects begin at the start of a line.
declared() { # <header>
    sed -n -e '/^typedef/d' -e 's/^[a-z].*[ *]\([a-z_]*\)(.*/\1/p' \
        -e 's/^extern .*[ *]\([a-z_]*\)[[;].*/\1/p' "$1" | sort
}

dynamic() { # <library> <tag>
    readelf -d "$1" | sed -n "s/.*($2).*\[\(.*\)\]/\1/p" | sort | tr '\n' ' '
}

check_library() { # <library> <linker script> <header> <soname>
    names=$(listed "$2")
    expect_same "exported by $1" "$names" "$(nm -D --defined-only "$1" | sed 's/.* //' | sort)"
    expect_same "declared in $3" "$names" "$(declared "$3")"
    expect_same "name of $1" "$4 " "$(dynamic "$1" SONAME)"
    for language in "c $cc -std=c11" "c++ $cxx -std=c++17"; do
        # shellcheck disable=SC2086 # words on purpose
        set -- "$1" "$2" "$3" "$4" $language
        "$6" -x "$5" "$7" -Wall -Wextra -Wpedantic -Werror -fsyntax-only "$3" ||
            failures=$((failures + 1))
    done
}

check_library "$tolvane" "$source/src/tolvane.map" "$source/include/tolvane.h" libtolvane.so.1
check_library "$timer" "$source/timer/ruvo_timer.map" "$source/timer/ruvo_timer.h" libruvo_timer.so
if [ -z "$sanitizers" ]; then
    expect_same "needed by $tolvane" "libc.so.6 libruvo_timer.so " "$(dynamic "$tolvane" NEEDED)"
    expect_same "needed by $timer" "libc.so.6 " "$(dynamic "$timer" NEEDED)"
fi
exit "$failures"
