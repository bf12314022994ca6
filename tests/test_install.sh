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

step() { # <what> <command...>: its output only if it fails
    what=$1
    shift
    "$@" >"$work/output" 2>&1 || { echo "FAILED: $what"; cat "$work/output"; exit 1; }
    echo "ok: $what"
}

expect_pong() { # <what> <program>
    reply=$(timeout 30 "$2") || true
    [ "$reply" = pong ] || { echo "FAILED: run $1: '$reply'"; exit 1; }
    echo "ok: run $1"
}

install_moved() { # <what> <build folder>
    step "install $1" "$cmake" --install "$2" --prefix "$work/first"
    mv "$work/first" "$work/$1"
    if grep -rlIF -e "$work/first" -e "$2" -e "$source" "$work/$1"; then
        echo "FAILED: these files hold folders of this machine"
        exit 1
    fi
}

consumer_by_cmake() { # <what> <option...>
    name=$1
    shift
    step "configure $name" "$cmake" -S "$consumer" -B "$work/build-$name" \
        -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" "$@"
    step "build $name" "$cmake" --build "$work/build-$name"
    expect_pong "$name, C" "$work/build-$name/consumer_c"
    expect_pong "$name, C++" "$work/build-$name/consumer_cxx"
}

consumer_by_pkg_config() { # <what>: C without the C++ compiler, also for linking
    folder=$(dirname "$(find "$work/$1" -name tolvane.pc)")
    for language in "C $cc -std=c11 c" "C++ $cxx -std=c++17 c++"; do
        # shellcheck disable=SC2086 # words on purpose
        set -- "$1" $language
        # shellcheck disable=SC2046 # words on purpose
        step "compile $1, pkg-config, $2" "$3" "$4" -x "$5" -D_POSIX_C_SOURCE=200809L -Wall -Wextra \
            -Wpedantic -Werror -o "$work/program" "$consumer/consumer.c" -x none \
            $(PKG_CONFIG_PATH=$folder pkg-config --cflags --libs tolvane) \
            "-Wl,-rpath,$(dirname "$folder")"
        expect_pong "$1, pkg-config, $2" "$work/program"
    done
}

install_moved shared "$build"
for file in libtolvane.so tvcat; do
    ldd "$(find "$work/shared" -name $file)" | grep -q "libruvo_timer.so => $work/shared/" ||
        { echo "FAILED: $file does not find the timer library beside it"; exit 1; }
done
consumer_by_cmake shared "-DCMAKE_PREFIX_PATH=$work/shared"
consumer_by_pkg_config shared

consumer_by_cmake subfolder "-DTOLVANE_SOURCE=$source" -DBUILD_SHARED_LIBS=OFF
install_moved static "$work/build-subfolder"
consumer_by_cmake static "-DCMAKE_PREFIX_PATH=$work/static"
consumer_by_pkg_config static
if readelf -d "$work/build-static/consumer_c" | grep 'libstdc++\|tolvane\|ruvo'; then
    echo "FAILED: the static C program needs a library that it should not"
    exit 1
fi
