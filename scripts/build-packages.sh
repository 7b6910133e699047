#!/usr/bin/env bash
# Builds the Debian packages (cmake/Packages.cmake) into a build folder of their
# own, configured for /usr and with Debian's build flags (fortified, hardened).
#   scripts/build-packages.sh [BUILD_DIR]     default build/deb; the .deb files land there
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$root/build/deb}

# Read by CMake when it first configures the folder.
CFLAGS="$(dpkg-buildflags --get CFLAGS) $(dpkg-buildflags --get CPPFLAGS)"
CXXFLAGS="$(dpkg-buildflags --get CXXFLAGS) $(dpkg-buildflags --get CPPFLAGS)"
LDFLAGS=$(dpkg-buildflags --get LDFLAGS)
export CFLAGS CXXFLAGS LDFLAGS

cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
  -DSORVALEN_BUILD_TESTS=OFF -DSORVALEN_BUILD_BENCH=OFF >/dev/null
cmake --build "$dir" -j "${JOBS:-$(nproc)}"
rm -f "$dir"/*.deb
(cd "$dir" && cpack -G DEB >/dev/null)
ls "$dir"/*.deb
