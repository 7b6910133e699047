#!/bin/bash
# Installs the build into a temporary prefix and builds a small application
# against it twice: with CMake's find_package and with pkg-config.
# Usage: install_test.sh <build dir> <consumer source dir>
set -eu
build=$1 consumer=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libsorvalen_mdns_search.so.2' | head -1)")
export LD_LIBRARY_PATH=$libdir

cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
"$work/cmake-build/consumer"

# The .pc file finds the prefix relative to itself.
export PKG_CONFIG_PATH=$libdir/pkgconfig
flags=$(pkg-config --cflags --libs sorvalen_mdns_search)
case "$flags" in *"-I$prefix/"*) ;; *) echo "pkg-config flags miss the prefix: $flags" >&2; exit 1 ;; esac
# shellcheck disable=SC2086
c++ -o "$work/pc-consumer" "$consumer/main.cpp" $flags
"$work/pc-consumer"
