#!/bin/bash
# Installs the build into a temporary prefix and uses it as a user would, with no LD_LIBRARY_PATH: runs the
# tool, renders its manual page, builds and runs an application with CMake's find_package and one with
# pkg-config as C++20, and builds the README's examples.  Usage: install_test.sh BUILD CONSUMER README
set -euo pipefail
build=$1 consumer=$2 readme=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
unset LD_LIBRARY_PATH

cmake --install "$build" --prefix "$prefix" >/dev/null
tool=$prefix/bin/sorvalen-mdns
# The manual page renders cleanly and lists every option that the tool's help lists.
manual=$(gzip -dc "$prefix/share/man/man1/sorvalen-mdns.1.gz" | groff -man -Tascii -ww 2>"$work/warnings" | sed 's/.\x08//g')
[ ! -s "$work/warnings" ] || { cat "$work/warnings" >&2; exit 1; }
for command in search types resolve lookup; do
  "$tool" help "$command" | sed -n 's/^  \(-[^ ]*\( [^ ]\+\)*\)  .*/\1/p' | while read -r flags; do
    grep -qF -- "$flags" <<<"$manual" || { echo "the manual page lacks $flags" >&2; exit 1; }
  done
done

cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
"$work/cmake-build/consumer"

# The .pc file finds the prefix relative to itself, leaves the language
# standard to the application and names libmdns only for static linking.
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name sorvalen_mdns_search.pc)")
flags=$(pkg-config --cflags --libs sorvalen_mdns_search)
case "$flags" in *"-I$prefix/"*) ;; *) echo "pkg-config flags miss the prefix: $flags" >&2; exit 1 ;; esac
case "$flags" in *-std=* | *-lmdns*) echo "pkg-config flags force too much: $flags" >&2; exit 1 ;; esac
rpath=-Wl,-rpath,$(pkg-config --variable=libdir sorvalen_mdns_search)
# shellcheck disable=SC2086
c++ -std=c++20 -o "$work/pc-consumer" "$consumer/main.cpp" $flags "$rpath"
"$work/pc-consumer"

# Every C++ example of the README compiles and links as it stands.
awk -v dir="$work" '/^```cpp$/ { n++; inside = 1; next } /^```$/ && inside { inside = 0; next }
  inside { print > (dir "/example" n ".cpp") }' "$readme"
for example in "$work"/example*.cpp; do
  # shellcheck disable=SC2086
  c++ -std=c++17 -o "${example%.cpp}" "$example" $flags "$rpath"
done
