# What both demos do first: install the Debian packages, build the tool into
# build/demo, and set up a virtual LAN run that is removed on exit.  Sourced
# by scripts/demo.sh and scripts/demo-dns.sh, which set `root` first.
build="$root/build/demo"
tool="$build/tools/sorvalen-mdns"
vlan=(bash "$root/scripts/vlan.sh")

step() { printf '\n== %s\n' "$*"; }

step "Installing what the demo needs"
bash "$root/scripts/install-deps.sh"

step "Building sorvalen-mdns (Release, into build/demo)"
mkdir -p "$build"
if ! { cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DSORVALEN_BUILD_TESTS=OFF -DSORVALEN_BUILD_BENCH=OFF &&
  cmake --build "$build" --target sorvalen-mdns -j "$(nproc)"; } >"$build/build.log" 2>&1; then
  tail -n 30 "$build/build.log" >&2
  echo "the build failed; the whole log is in $build/build.log" >&2
  exit 1
fi
echo "built $tool"

run="sv$$"
cleanup() { "${vlan[@]}" destroy "$run" >/dev/null 2>&1 || true; }
trap cleanup EXIT
trap 'exit 130' INT TERM
"${vlan[@]}" cleanup-stale
