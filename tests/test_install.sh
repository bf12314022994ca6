#!/bin/sh
# test_install.sh - build and run a program outside the project: against an installation that was
# moved, through CMake and pkg-config, shared and static, and with the project's source as a
# subproject.
#
# usage: test_install.sh <source folder> <build folder> <cmake> <cc> <c++>
set -eu
source=$1 build=$2 cmake=$3 cc=$4 cxx=$5
consumer=$source/tests/consumer
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() { # <why>
    echo "FAILED: $1"
    exit 1
}

expect_name() { # <program>...
    for program; do
        printed=$(timeout 30 "$program") || fail "$program ends with $?"
        [ "$printed" = tcp://consumer:7 ] || fail "$program prints '$printed'"
    done
}

use_by_cmake() { # <folder to build in> <option...>
    "$cmake" -S "$consumer" -B "$@" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx"
    "$cmake" --build "$1"
    expect_name "$1/consumer_c" "$1/consumer_cpp"
}

check_installation() { # <what> <build folder>
    "$cmake" --install "$2" --prefix "$work/first"
    mv "$work/first" "$work/$1"
    ! grep -rlIF -e "$work/first" -e "$2" -e "$source" "$work/$1" || fail "found build paths"
    use_by_cmake "$work/build-$1" "-DCMAKE_PREFIX_PATH=$work/$1"
    # The C compiler is enough, even for linking.
    folder=$(dirname "$(find "$work/$1" -name tolvane.pc)")
    # shellcheck disable=SC2046,SC2086 # words on purpose
    "$cc" $CFLAGS "$consumer/consumer.c" -o "$work/program" "-Wl,-rpath,$(dirname "$folder")" \
        $(PKG_CONFIG_PATH=$folder pkg-config --cflags --libs tolvane)
    expect_name "$work/program"
}

check_installation shared "$build"
for file in libtolvane.so tvcat; do
    ldd "$(find "$work/shared" -name $file)" | grep "libruvo_timer.so => $work/shared/" ||
        fail "$file does not find the timer library beside it"
done

use_by_cmake "$work/inside" "-DTOLVANE_SOURCE=$source" -DTOLVANE_INSTALL=ON \
    -DCMAKE_CXX_STANDARD=20 -DCMAKE_EXPORT_COMPILE_COMMANDS=ON
grep -q -- "-std=\(c\|gnu\)++2[0a].*tv_loop" "$work/inside/compile_commands.json" ||
    fail "the standard of the project around it is not honoured"
check_installation static "$work/inside"
! readelf -d "$work/build-static/consumer_c" | grep 'libstdc++\|tolvane\|ruvo' ||
    fail "the static C program needs a library that it should not"
