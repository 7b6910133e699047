#!/bin/bash
# Builds the Debian packages (scripts/build-packages.sh) and checks them as a user of each would: every
# file in the package that should ship it, no RUNPATH, the runtime packages' shlibs, the dependencies,
# lintian, and the tool and a CMake application run from the packages' files unpacked into a folder.
# With SORVALEN_TEST_INSTALL_PACKAGES=1 (CI's throwaway machine) it also installs them with apt, uses
# them from /usr and removes them.
#   Usage: packages_test.sh SOURCE BUILD_DIR
set -euo pipefail
source_dir=$1 dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset LD_LIBRARY_PATH
fail() { echo "$*" >&2; exit 1; }

missing=()
for program in cpack dpkg-deb dpkg-shlibdeps lintian readelf; do
  command -v "$program" >/dev/null || missing+=("$program")
done
if [ ${#missing[@]} -gt 0 ]; then
  # A skip in CI would hide a gap: there scripts/install-deps.sh has installed them.
  [ "${CI:-}" != true ] || fail "missing: ${missing[*]}"
  echo "skipped: missing ${missing[*]} (bash scripts/install-deps.sh)"
  exit 77
fi

JOBS=2 bash "$source_dir/scripts/build-packages.sh" "$dir" >"$work/build.log" 2>&1 || {
  cat "$work/build.log" >&2
  exit 1
}
version=$(dpkg-deb -f "$dir"/sorvalen-mdns_*.deb Version)
arch=$(dpkg --print-architecture)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
libdir=usr/lib/$multiarch
deb() { echo "$dir/${1}_${version}_$arch.deb"; }
packages=(libmdns0.2 libsorvalen-mdns-search2 libsorvalen-mdns-search-dev sorvalen-mdns)
files=()
for package in "${packages[@]}"; do files+=("$(deb "$package")"); done
[ "$(ls "$dir"/*.deb)" = "$(printf '%s\n' "${files[@]}" | sort)" ] || fail "not the four packages: $(ls "$dir"/*.deb)"

# What each package holds, exactly: files and symbolic links (with their targets).
expect() {
  local package=$1
  shift
  printf '%s\n' "$@" "usr/share/doc/$package/changelog.Debian.gz" "usr/share/doc/$package/copyright" | sort
}
holds() { dpkg-deb -c "$(deb "$1")" | awk '$1 !~ /^d/ { print substr($0, index($0, "./") + 2) }' | sort; }
headers=$(cd "$source_dir" && { find include/sorvalen -type f; cd mdns && find include/mdns -type f; } | sed 's|^|usr/|')
# shellcheck disable=SC2086
expect libsorvalen-mdns-search-dev $headers \
  "$libdir/libmdns.so -> libmdns.so.0.2" \
  "$libdir/libsorvalen_mdns_search.so -> libsorvalen_mdns_search.so.2" \
  "$libdir/pkgconfig/sorvalen_mdns_search.pc" \
  "$libdir/cmake/sorvalen_mdns_search/sorvalen_mdns_search-config.cmake" \
  "$libdir/cmake/sorvalen_mdns_search/sorvalen_mdns_search-config-version.cmake" \
  "$libdir/cmake/sorvalen_mdns_search/sorvalen_mdns_search-targets.cmake" \
  "$libdir/cmake/sorvalen_mdns_search/sorvalen_mdns_search-targets-relwithdebinfo.cmake" >"$work/expected"
holds libsorvalen-mdns-search-dev | diff -u "$work/expected" - || fail "libsorvalen-mdns-search-dev holds other files"
expect libmdns0.2 "$libdir/libmdns.so.0.2" >"$work/expected"
holds libmdns0.2 | diff -u "$work/expected" - || fail "libmdns0.2 holds other files"
expect libsorvalen-mdns-search2 "$libdir/libsorvalen_mdns_search.so.2" >"$work/expected"
holds libsorvalen-mdns-search2 | diff -u "$work/expected" - || fail "libsorvalen-mdns-search2 holds other files"
expect sorvalen-mdns usr/bin/sorvalen-mdns usr/share/man/man1/sorvalen-mdns.1.gz >"$work/expected"
holds sorvalen-mdns | diff -u "$work/expected" - || fail "sorvalen-mdns holds other files"

root=$work/root
for file in "${files[@]}"; do dpkg-deb -x "$file" "$root"; done
# Installed into /usr, the dynamic linker's own paths find the libraries: a
# RUNPATH there would only be a path that can go stale (and lintian lets
# $ORIGIN pass).
for binary in "$root/$libdir"/lib*.so.* "$root/usr/bin/sorvalen-mdns"; do
  ! readelf -d "$binary" | grep -E 'RPATH|RUNPATH' || fail "$binary has a search path"
done

# The runtime packages' shlibs files give a program linked with them its
# dependencies (lintian checks their ldconfig triggers).
control() { dpkg-deb --ctrl-tarfile "$(deb "$1")" | tar -xO "./$2"; }
mkdir -p "$work/shlibs/debian"
: >"$work/shlibs/debian/control"
for package in libmdns0.2 libsorvalen-mdns-search2; do
  control "$package" shlibs >>"$work/shlibs/debian/shlibs.local"
done
shlibdeps=$(cd "$work/shlibs" && dpkg-shlibdeps -O -l"$root/$libdir" "$root/usr/bin/sorvalen-mdns" 2>"$work/warnings") ||
  fail "$(cat "$work/warnings")"
for package in libmdns0.2 libsorvalen-mdns-search2; do
  grep -qF "$package (>= $version)" <<<"$shlibdeps" || fail "shlibs do not lead to $package: $shlibdeps"
done

depends() { dpkg-deb -f "$(deb "$1")" Depends | tr -d ' ' | tr ',' '\n'; }
requires() { depends "$1" | grep -qxF -- "$2" || fail "$1 does not depend on $2: $(depends "$1" | xargs)"; }
requires libsorvalen-mdns-search-dev "libsorvalen-mdns-search2(=$version)"
requires libsorvalen-mdns-search-dev "libmdns0.2(=$version)"
requires libsorvalen-mdns-search2 "libmdns0.2(>=$version)"
requires sorvalen-mdns "libsorvalen-mdns-search2(>=$version)"
requires sorvalen-mdns "libmdns0.2(>=$version)"
depends libmdns0.2 | grep -q '^libc6' || fail "libmdns0.2 lacks its dependencies on the system's libraries"

# No errors; of the warnings only these two, both explained in the README.
lintian "${files[@]}" >"$work/lintian" 2>/dev/null || true
cat "$work/lintian"
! grep -E '^(E|W): ' "$work/lintian" | grep -vE ' (initial-upload-closes-no-bugs|maintscript-calls-ldconfig) ' ||
  fail "lintian: errors or new warnings"

# The tool and an application built with the CMake package, from the unpacked files.
export LD_LIBRARY_PATH=$root/$libdir
"$root/usr/bin/sorvalen-mdns" --version | grep -qxF "sorvalen-mdns ${version%-*}" || fail "the tool's version"
"$root/usr/bin/sorvalen-mdns" help search >/dev/null
cmake -S "$source_dir/tests/install/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$root/usr" >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/consumer"
unset LD_LIBRARY_PATH

[ "${SORVALEN_TEST_INSTALL_PACKAGES:-}" = 1 ] || exit 0
# Installed for real, used from /usr by a program built with pkg-config, then removed.
for package in "${packages[@]}"; do
  ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "ok installed" ||
    fail "$package is installed already; this test installs and removes it"
done
apt=(apt-get -qq -y -o DPkg::Lock::Timeout=300)
trap '"${apt[@]}" purge "${packages[@]}" >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
DEBIAN_FRONTEND=noninteractive "${apt[@]}" install "${files[@]}" >/dev/null
# From /usr/bin with no LD_LIBRARY_PATH: the multiarch folder is searched through
# the linker cache, so this also shows that the ldconfig trigger ran.
/usr/bin/sorvalen-mdns --version
# shellcheck disable=SC2046
c++ -std=c++17 -o "$work/pc-consumer" "$source_dir/tests/install/consumer/main.cpp" \
  $(pkg-config --cflags --libs sorvalen_mdns_search)
"$work/pc-consumer"
DEBIAN_FRONTEND=noninteractive "${apt[@]}" purge "${packages[@]}" >/dev/null
[ ! -e /usr/bin/sorvalen-mdns ] || fail "removing the packages left the tool"
