#!/usr/bin/env bash
# Device-search benchmark on a virtual LAN built on this machine (nothing is
# sent on the real interfaces).  For each scenario (devices x services, all
# announced by avahi-daemon) it measures:
#   - time from Start until every instance is in the lists: median and worst
#     over RUNS runs (default 10), each with an empty cache;
#   - mDNS packets and bytes the querier sent in the first 10 s and in 60 s
#     (tcpdump in the querier's namespace);
# for our search (bench/search_time) and for python3-zeroconf's
# ServiceBrowser + get_service_info in the same scenarios, and prints a table
# with the ratios (ours / zeroconf).
#
#   sudo bash scripts/bench.sh                 everything (about 10 minutes)
#   RUNS=5 HOLD=30 sudo bash scripts/bench.sh  shorter
#   SCENARIOS="1x1 5x10" ...                    only some scenarios
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
runs=${RUNS:-10}
hold=${HOLD:-60}
build=${BUILD:-$root/build/bench}
vlan=(bash "$root/scripts/vlan.sh")
type=_sorvbench._tcp
py=/usr/bin/python3  # Debian's, which has python3-zeroconf

[ "$(id -u)" -eq 0 ] || { echo "needs root (network namespaces): sudo bash scripts/bench.sh" >&2; exit 1; }
bash "$root/scripts/install-deps.sh"

timer=${SEARCH_TIME:-}  # an already built bench/search_time, if given
if [ -z "$timer" ]; then
  echo "== building bench/search_time (Release, $build)"
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSORVALEN_BUILD_TESTS=OFF >/dev/null
  cmake --build "$build" --target search_time -j "$(nproc)" >/dev/null
  timer="$build/bench/search_time"
fi

work=$(mktemp -d)
zc="$work/zeroconf_search.py"
cat >"$zc" <<'PY'
# Same measurements with python3-zeroconf: browse, then resolve every instance.
import sys, threading, time
from zeroconf import IPVersion, ServiceBrowser, ServiceStateChange, Zeroconf

full_type = sys.argv[1] + ".local."

def search(expected, limit):
    zc = Zeroconf(ip_version=IPVersion.All)
    resolved, lock, done, closing = set(), threading.Lock(), threading.Event(), threading.Event()

    # Retried until it succeeds, as our resolves keep running until Stop.
    def resolve(name):
        while not closing.is_set():
            info = zc.get_service_info(full_type, name, timeout=3000)
            if info is not None and info.addresses:
                with lock:
                    resolved.add(name)
                    if expected and len(resolved) >= expected:
                        done.set()
                return

    def on_change(zeroconf, service_type, name, state_change):
        if state_change is ServiceStateChange.Added:
            threading.Thread(target=resolve, args=(name,), daemon=True).start()

    start = time.monotonic()
    browser = ServiceBrowser(zc, full_type, handlers=[on_change])
    if expected:
        ok = done.wait(limit)
    else:
        print("started", flush=True)
        time.sleep(limit)
        ok = True
    elapsed = (time.monotonic() - start) * 1000
    closing.set()
    browser.cancel()
    zc.close()
    return elapsed if ok else -1, len(resolved)

if sys.argv[2] == "hold":
    _, found = search(0, int(sys.argv[3]))
    print("found %d" % found)
    sys.exit(0)
expected, runs = int(sys.argv[2]), int(sys.argv[3])
times = []
for run in range(runs):
    ms, found = search(expected, 60)
    print("run %d: %.1f ms" % (run + 1, ms), flush=True)
    if ms < 0:
        print("only %d of %d instances resolved in 60 s" % (found, expected), flush=True)
        sys.exit(1)
    times.append(ms)
    time.sleep(2)
times.sort()
n = len(times)
median = times[n // 2] if n % 2 else (times[n // 2 - 1] + times[n // 2]) / 2
print("median %.1f worst %.1f" % (median, times[-1]))
PY

run="sv$$x1"
cleanup() { "${vlan[@]}" destroy "$run" >/dev/null 2>&1 || true; rm -rf "$work"; }
trap cleanup EXIT

# Builds the LAN for one scenario: querier plus DEVICES hosts with SERVICES each.
build_scenario() {
  local devices=$1 services=$2 d s
  "${vlan[@]}" destroy "$run" >/dev/null 2>&1 || true
  "${vlan[@]}" create "$run" >/dev/null
  "${vlan[@]}" add-lan "$run" 1 >/dev/null
  "${vlan[@]}" add-host "$run" querier 1 >/dev/null
  for ((d = 1; d <= devices; d++)); do
    "${vlan[@]}" add-host "$run" "dev$d" 1 >/dev/null
    for ((s = 1; s <= services; s++)); do
      "${vlan[@]}" add-service "$run" "dev$d" "Bench $d-$s" "$type" $((8000 + s)) >/dev/null
    done
    "${vlan[@]}" start-avahi "$run" "dev$d" >/dev/null
  done
  # Probing and announcing take a few seconds per daemon; let every one finish.
  local log i
  for ((d = 1; d <= devices; d++)); do
    log="${SV_VLAN_STATE_ROOT:-/tmp/sorvalen-vlan}/$run/hosts/dev$d/avahi.log"
    for ((i = 0; i < 600; i++)); do
      [ "$(grep -c 'successfully established' "$log" 2>/dev/null || echo 0)" -ge "$services" ] && break
      sleep 0.1
    done
  done
  sleep 3
}

# Packets and bytes the querier sent to port 5353 so far (IPv4 and IPv6 sources).
sent_so_far() {
  local v4 v6 a b c d
  v4=$("${vlan[@]}" ipv4 "$run" querier)
  v6=$("${vlan[@]}" ipv6ll "$run" querier)
  read -r a b < <("${vlan[@]}" capture-count "$run" querier eth0 "$v4")
  read -r c d < <("${vlan[@]}" capture-count "$run" querier eth0 "${v6%%%*}")
  echo "$((a + c)) $((b + d))"
}

# Runs one querier for $hold seconds under capture; prints "P10 B10 P60 B60".
traffic() {
  local start p10 p60
  "${vlan[@]}" capture-start "$run" querier eth0 >/dev/null
  "${vlan[@]}" exec "$run" querier "$@" >"$work/hold.log" 2>&1 &
  local pid=$!
  start=$(date +%s.%N)
  sleep 10
  p10=$(sent_so_far)
  wait "$pid" || true
  sleep 1
  p60=$(sent_so_far)
  "${vlan[@]}" capture-stop "$run" querier eth0 >/dev/null
  echo "$p10 $p60"
}

timing() { # prints "MEDIAN WORST" from a run log on stdin
  awk '/^median/ { print $2, $4 }'
}

declare -a rows
for scenario in ${SCENARIOS:-1x1 5x10 1x200}; do
  devices=${scenario%x*}
  services=${scenario#*x}
  total=$((devices * services))
  echo "== scenario: $devices device(s) x $services service(s)"
  build_scenario "$devices" "$services"

  "${vlan[@]}" exec "$run" querier "$timer" "$type" "$total" "$runs" | tee "$work/ours.log"
  read -r our_median our_worst < <(timing <"$work/ours.log")
  "${vlan[@]}" exec "$run" querier "$py" "$zc" "$type" "$total" "$runs" | tee "$work/zc.log"
  read -r zc_median zc_worst < <(timing <"$work/zc.log")

  read -r our_p10 our_b10 our_p60 our_b60 < <(traffic "$timer" "$type" hold "$hold")
  read -r zc_p10 zc_b10 zc_p60 zc_b60 < <(traffic "$py" "$zc" "$type" hold "$hold")
  rows+=("$devices x $services|$our_median|$our_worst|$zc_median|$zc_worst|$our_p10/$our_b10|$zc_p10/$zc_b10|$our_p60/$our_b60|$zc_p60/$zc_b60")
done

ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else printf "-" }'; }

echo
echo "Time from Start until every instance is listed (ms, $runs runs, empty cache each),"
echo "and mDNS packets/bytes the querier sent in the first 10 s and in ${hold} s."
printf '%-10s | %9s %9s | %9s %9s | %5s | %13s %13s | %13s %13s\n' scenario "our med" "our worst" \
  "zc med" "zc worst" ratio "ours 10s" "zc 10s" "ours ${hold}s" "zc ${hold}s"
for row in "${rows[@]}"; do
  IFS='|' read -r name om ow zm zw o10 z10 o60 z60 <<<"$row"
  printf '%-10s | %9s %9s | %9s %9s | %5s | %13s %13s | %13s %13s\n' "$name" "$om" "$ow" "$zm" "$zw" \
    "$(ratio "$om" "$zm")" "$o10" "$z10" "$o60" "$z60"
done
