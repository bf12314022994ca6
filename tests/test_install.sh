#!/bin/sh
# test_install.sh - a program outside the project is built, as C and as C++, and works: with an
# installation that was moved, through CMake and pkg-config, shared and static, and with the
# project's source as a folder of its own project.
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

expect_pong() { # <program>
    reply=$(timeout 30 "$1") || true
    [ "$reply" = pong ] || fail "$1 prints '$reply'"
}

install_moved() { # <what> <build folder>
    "$cmake" --install "$2" --prefix "$work/first"
    mv "$work/first" "$work/$1"
    ! grep -rlIF -e "$work/first" -e "$2" -e "$source" "$work/$1" ||
        fail "these files hold folders of this machine"
}

consumer_by_cmake() { # <what> <option...>
    folder=$work/build-$1
    shift
    "$cmake" -S "$consumer" -B "$folder" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" "$@"
    "$cmake" --build "$folder"
    expect_pong "$folder/consumer_c"
    expect_pong "$folder/consumer_cxx"
}

consumer_by_pkg_config() { # <what>: C without the C++ compiler, also for linking
    folder=$(dirname "$(find "$work/$1" -name tolvane.pc)")
    cflags=$(PKG_CONFIG_PATH=$folder pkg-config --cflags tolvane)
    libs=$(PKG_CONFIG_PATH=$folder pkg-config --libs tolvane)
    for compiler in "$cc $CFLAGS -std=c11 -x c" "$cxx $CXXFLAGS -std=c++17 -x c++"; do
        # shellcheck disable=SC2086 # words on purpose
        $compiler -Wall -Wextra -Wpedantic -Werror $cflags -c "$consumer/consumer.c" \
            -o "$work/consumer.o"
        # shellcheck disable=SC2086
        ${compiler% -x *} "$work/consumer.o" -o "$work/program" $libs "-Wl,-rpath,$(dirname "$folder")"
        expect_pong "$work/program"
    done
}

install_moved shared "$build"
for file in libtolvane.so tvcat; do
    ldd "$(find "$work/shared" -name $file)" | grep "libruvo_timer.so => $work/shared/" ||
        fail "$file does not find the timer library beside it"
done
consumer_by_cmake shared "-DCMAKE_PREFIX_PATH=$work/shared"
consumer_by_pkg_config shared

consumer_by_cmake subfolder "-DTOLVANE_SOURCE=$source" -DTOLVANE_INSTALL=ON -DCMAKE_CXX_STANDARD=20
grep -q -- "-std=\(c\|gnu\)++20.*tv_loop" "$work/build-subfolder/compile_commands.json" ||
    fail "the standard of the project around it is not honoured"
install_moved static "$work/build-subfolder"
consumer_by_cmake static "-DCMAKE_PREFIX_PATH=$work/static"
consumer_by_pkg_config static
! readelf -d "$work/build-static/consumer_c" | grep 'libstdc++\|tolvane\|ruvo' ||
    fail "the static C program needs a library that it should not"
