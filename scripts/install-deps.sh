#!/usr/bin/env bash
# Installs the Debian packages that building, packaging, testing, the demo and the benchmarks
# need.  Idempotent: does nothing when everything is present.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  libgtest-dev libgmock-dev libbenchmark-dev
  clang clang-format libclang-rt-14-dev
  iproute2 procps tcpdump util-linux dbus groff-base
  dpkg-dev file lintian
  avahi-daemon avahi-utils python3 python3-zeroconf bind9
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "missing packages: ${missing[*]}" >&2
  echo "run as root (or: sudo apt-get install ${missing[*]})" >&2
  exit 1
fi

# Keep package scripts from starting daemons (avahi-daemon) on the host: the
# project only ever runs them inside its own network namespaces.
policy=/usr/sbin/policy-rc.d
own_policy=0
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' >"$policy"
  chmod +x "$policy"
  own_policy=1
fi
trap '[ "$own_policy" = 1 ] && rm -f "$policy"' EXIT

export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
