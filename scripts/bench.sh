#!/usr/bin/env bash
# Device-search benchmark on a virtual LAN built on this machine (nothing is
# sent on the real interfaces).  Three queriers in the same run:
#   ours      bench/search_time (the library through its public interface)
#   zeroconf  python3-zeroconf: ServiceBrowser + get_service_info (bench/zeroconf_search.py)
#   avahi     avahi-browse -rp through a private D-Bus and an avahi-daemon of its
#             own host (bench/avahi_search.py), restarted for every run; that
#             daemon publishes none of the test services
# and responders of two kinds: avahi-daemon and python3-zeroconf
# (bench/zeroconf_responder.py).  For each scenario and querier it measures:
#   - time from Start until every instance is listed: median and worst over
#     RUNS runs (default 10), each with an empty cache; the median time until
#     the first instance is listed;
#   - mDNS queries and bytes the querier sent in the first 10 s and in HOLD s
#     (default 60; tcpdump in the querier's namespace);
#   - in that HOLD-second search: instances found / still listed at the end /
#     listed once and missing later.
#
#   sudo bash scripts/bench.sh                      everything (about 25 minutes)
#   RUNS=2 HOLD=15 SCENARIOS=1x1 sudo bash scripts/bench.sh     short
#   SEARCH_TIME=/other/build/bench/search_time ...  measures another build of ours
#   QUERIERS="ours zeroconf" ...                     only some queriers
#   BEFORE=/old/build/bench/search_time QUERIERS="ours before zeroconf avahi" ...
#                                                   another build of ours beside it, as "before"
#
# Scenarios (SCENARIOS, default "1x1 5x10 1x200 5x10mixed"; 1x2000 too is
# measured for the README, with QUERIERS="ours zeroconf"): DxS is D devices
# with S services each, all answered by avahi-daemon; DxSmixed answers with
# avahi-daemon on 3 of every 5 devices and python3-zeroconf on the others;
# dnsN is a search of example.test. over unicast DNS, BIND 9 serving N
# instances of one type, ten on each target host (SRV, TXT and one A each;
# TTL DNS_TTL, default 10 s), measured for ours only (the peers do not search
# other domains than local.), its packets counted to and from port 53.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
runs=${RUNS:-10}
hold=${HOLD:-60}
queriers=${QUERIERS:-ours zeroconf avahi}
build=${BUILD:-$root/build/release-bench}
vlan=(bash "$root/scripts/vlan.sh")
type=_sorvbench._tcp
py=/usr/bin/python3 # Debian's, which has python3-zeroconf

[ "$(id -u)" -eq 0 ] || { echo "needs root (network namespaces): sudo bash scripts/bench.sh" >&2; exit 1; }
bash "$root/scripts/install-deps.sh"

timer=${SEARCH_TIME:-} # an already built bench/search_time, if given
if [ -z "$timer" ]; then
  echo "== building bench/search_time (Release, $build)"
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSORVALEN_BUILD_TESTS=OFF >/dev/null
  cmake --build "$build" --target search_time -j "$(nproc)" >/dev/null
  timer="$build/bench/search_time"
fi

work=$(mktemp -d)
run="sv$$x1"
cleanup() { "${vlan[@]}" destroy "$run" >/dev/null 2>&1 || true; rm -rf "$work"; }
trap cleanup EXIT

# Builds the LAN for one scenario: the queriers' hosts (querier for ours and
# zeroconf, avq for avahi-browse) plus DEVICES hosts with SERVICES each, the
# last ZEROCONF of them answered by python3-zeroconf.
build_scenario() {
  local devices=$1 services=$2 zeroconf=$3 d
  "${vlan[@]}" destroy "$run" >/dev/null 2>&1 || true
  "${vlan[@]}" create "$run" >/dev/null
  "${vlan[@]}" add-lan "$run" 1 >/dev/null
  "${vlan[@]}" add-host "$run" querier 1 >/dev/null
  "${vlan[@]}" add-host "$run" avq 1 >/dev/null
  for ((d = 1; d <= devices; d++)); do
    "${vlan[@]}" add-host "$run" "dev$d" 1 >/dev/null
    "${vlan[@]}" add-services "$run" "dev$d" "Bench $d" "$type" 8000 "$services" >/dev/null
    if ((d > devices - zeroconf)); then
      "${vlan[@]}" start-zeroconf "$run" "dev$d" >/dev/null
    else
      "${vlan[@]}" start-avahi "$run" "dev$d" --no-wait >/dev/null
    fi
  done
  for ((d = 1; d <= devices - zeroconf; d++)); do "${vlan[@]}" wait-avahi "$run" "dev$d" >/dev/null; done
  # The last announcements; avahi-daemon announcing a thousand services or
  # more is busy for tens of seconds, and a search is timed once it settled.
  sleep "${SETTLE:-$((services >= 1000 ? 60 : 3))}"
}

# A DNS server with COUNT instances of the type and the querier whose resolver
# file names it.
build_dns_scenario() {
  "${vlan[@]}" destroy "$run" >/dev/null 2>&1 || true
  "${vlan[@]}" create "$run" >/dev/null
  "${vlan[@]}" add-lan "$run" 1 >/dev/null
  "${vlan[@]}" add-host "$run" querier 1 >/dev/null
  "${vlan[@]}" add-host "$run" dns 1 >/dev/null
  "${vlan[@]}" dns-services "$run" dns Device "$type" "$1" 10 >/dev/null
  "${vlan[@]}" start-dns "$run" dns --zone example.test. --ttl "${DNS_TTL:-10}" >/dev/null
  "${vlan[@]}" use-dns "$run" querier dns >/dev/null
}

# Packets and bytes (UDP payload, or TCP segment data) the querier sent to port 53.
dns_sent() { # PCAP
  { tcpdump -r "$1" -n -q "dst port 53" 2>/dev/null || true; } |
    awk '/length [0-9]+/ { packets++; if (match($0, /length [0-9]+$/)) bytes += substr($0, RSTART + 7) }
      END { printf "%d/%d\n", packets, bytes }'
}

# One HOLD-second search of example.test. under capture: "P10/B10 PHOLD/BHOLD FOUND END LOST".
hold_dns() {
  local pcap="$work/dns.pcap" p10 phold found end lost
  rm -f "$pcap"
  "${vlan[@]}" exec "$run" querier tcpdump -i eth0 -n -U -w "$pcap" port 53 >/dev/null 2>&1 &
  local dump=$!
  sleep 1
  "${vlan[@]}" exec "$run" querier "$timer" "$type" hold "$hold" example.test. >"$work/hold.log" 2>&1 &
  local pid=$!
  sleep 10
  p10=$(dns_sent "$pcap")
  wait "$pid" || true
  sleep 1
  phold=$(dns_sent "$pcap")
  kill -INT "$dump" 2>/dev/null || true
  wait "$dump" 2>/dev/null || true
  read -r found end lost < <(awk '/^found/ { print $2, $4, $6 }' "$work/hold.log")
  echo "$p10 $phold ${found:--} ${end:--} ${lost:--}"
}

# The avahi querier: a fresh daemon (empty cache) for each run.
avahi_up() { "${vlan[@]}" start-avahi "$run" avq --dbus >/dev/null; }
avahi_down() { "${vlan[@]}" stop-avahi "$run" avq >/dev/null; }

# Prints the run lines "run N: ALL ms first FIRST ms found F" of one querier.
time_querier() { # QUERIER EXPECTED
  local i
  case "$1" in
    ours) "${vlan[@]}" exec "$run" querier "$timer" "$type" "$2" "$runs" || true ;;
    before) "${vlan[@]}" exec "$run" querier "$BEFORE" "$type" "$2" "$runs" || true ;;
    zeroconf) "${vlan[@]}" exec "$run" querier "$py" "$root/bench/zeroconf_search.py" "$type" "$2" "$runs" || true ;;
    avahi)
      for ((i = 1; i <= runs; i++)); do
        avahi_up
        "${vlan[@]}" exec-avahi "$run" avq "$py" "$root/bench/avahi_search.py" "$type" "$2" "$i" || true
        avahi_down
        sleep 2
      done
      ;;
  esac
}

# Queries and bytes that HOST sent to port 5353 so far (IPv4 and IPv6 sources).
sent_so_far() { # HOST
  local v4 v6 a b c d
  v4=$("${vlan[@]}" ipv4 "$run" "$1")
  v6=$("${vlan[@]}" ipv6ll "$run" "$1")
  read -r a b < <("${vlan[@]}" capture-count "$run" "$1" eth0 "$v4" queries)
  read -r c d < <("${vlan[@]}" capture-count "$run" "$1" eth0 "${v6%%%*}" queries)
  echo "$((a + c))/$((b + d))"
}

# One HOLD-second search under capture; prints "P10/B10 PHOLD/BHOLD FOUND END LOST".
hold_querier() { # QUERIER TOTAL
  local host=querier cmd p10 phold
  case "$1" in
    ours) cmd=("${vlan[@]}" exec "$run" querier "$timer" "$type" hold "$hold") ;;
    before) cmd=("${vlan[@]}" exec "$run" querier "$BEFORE" "$type" hold "$hold") ;;
    zeroconf) cmd=("${vlan[@]}" exec "$run" querier "$py" "$root/bench/zeroconf_search.py" "$type" hold "$hold") ;;
    avahi)
      host=avq
      avahi_up
      sleep 2 # the daemon's own announcements are over
      cmd=("${vlan[@]}" exec-avahi "$run" avq "$py" "$root/bench/avahi_search.py" "$type" hold "$hold")
      ;;
  esac
  "${vlan[@]}" capture-start "$run" "$host" eth0 >/dev/null
  "${cmd[@]}" >"$work/hold.log" 2>&1 &
  local pid=$!
  sleep 10
  p10=$(sent_so_far "$host")
  wait "$pid" || true
  sleep 1
  phold=$(sent_so_far "$host")
  "${vlan[@]}" capture-stop "$run" "$host" eth0 >/dev/null
  [ "$1" != avahi ] || avahi_down
  local found end lost
  read -r found end lost < <(awk '/^found/ { print $2, ($4 == "" ? "-" : $4), ($6 == "" ? "-" : $6) }' "$work/hold.log")
  echo "$p10 $phold ${found:--} ${end:--} ${lost:--}"
}

# From run lines: "MEDIAN WORST FIRST_MEDIAN FAILED" (times of the runs that listed everything).
summarise() {
  awk '
    function median(a, n,   i, j, t) {
      for (i = 2; i <= n; i++) { t = a[i]; for (j = i - 1; j >= 1 && a[j] > t; j--) a[j + 1] = a[j]; a[j + 1] = t }
      return n % 2 ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2
    }
    /^run [0-9]+:/ {
      if ($3 >= 0) { all[++n] = $3; if ($3 > worst) worst = $3 } else failed++
      if ($6 >= 0) first[++m] = $6
    }
    END {
      printf "%s %s %s %d\n", n ? sprintf("%.0f", median(all, n)) : "-", n ? sprintf("%.0f", worst) : "-",
        m ? sprintf("%.0f", median(first, m)) : "-", failed
    }'
}

declare -a rows
for scenario in ${SCENARIOS:-1x1 5x10 1x200 5x10mixed}; do
  if [[ $scenario =~ ^dns([0-9]+)$ ]]; then
    total=${BASH_REMATCH[1]}
    echo "== scenario $scenario: BIND 9 serving $total instances of $type in example.test., 10 per host"
    build_dns_scenario "$total"
    echo "-- ours: $runs runs"
    "${vlan[@]}" exec "$run" querier "$timer" "$type" "$total" "$runs" example.test. | tee "$work/ours.log" || true
    read -r median worst first failed < <(summarise <"$work/ours.log")
    echo "-- ours: one search of ${hold} s under capture (port 53)"
    read -r p10 phold found end lost < <(hold_dns)
    rows+=("$scenario|ours|$median|$worst|$first|$failed|$p10|$phold|$found/$end/$lost|$total")
    continue
  fi
  [[ $scenario =~ ^([0-9]+)x([0-9]+)(mixed)?$ ]] || { echo "bad scenario '$scenario'" >&2; exit 2; }
  devices=${BASH_REMATCH[1]}
  services=${BASH_REMATCH[2]}
  zeroconf=0
  if [ -n "${BASH_REMATCH[3]}" ]; then
    zeroconf=$((devices * 2 / 5))
    ((zeroconf > 0)) || zeroconf=1
  fi
  total=$((devices * services))
  echo "== scenario $scenario: $devices device(s) x $services service(s), $((devices - zeroconf)) avahi-daemon, $zeroconf python3-zeroconf"
  build_scenario "$devices" "$services" "$zeroconf"
  for querier in $queriers; do
    echo "-- $querier: $runs runs"
    time_querier "$querier" "$total" | tee "$work/$querier.log"
    read -r median worst first failed < <(summarise <"$work/$querier.log")
    echo "-- $querier: one search of ${hold} s under capture"
    read -r p10 phold found end lost < <(hold_querier "$querier" "$total")
    rows+=("$scenario|$querier|$median|$worst|$first|$failed|$p10|$phold|$found/$end/$lost|$total")
  done
done

echo
echo "Time from Start until every instance is listed (ms; median and worst of $runs runs with an empty"
echo "cache each, runs that did not list everything within 60 s counted as failed), median time until"
echo "the first instance is listed; mDNS queries/bytes the querier sent in the first 10 s and in ${hold} s;"
echo "in that ${hold}-second search: instances found / listed at the end / listed once and missing later."
printf '%-10s %-8s | %7s %7s %7s %6s | %12s %12s | %14s\n' scenario querier median worst first failed \
  "10 s" "${hold} s" "found/end/lost"
for row in "${rows[@]}"; do
  IFS='|' read -r s q m w f x p10 ph fel total <<<"$row"
  printf '%-10s %-8s | %7s %7s %7s %6s | %12s %12s | %14s\n' "$s" "$q" "$m" "$w" "$f" "$x/$runs" "$p10" "$ph" \
    "$fel of $total"
done
