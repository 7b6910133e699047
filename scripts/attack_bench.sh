#!/usr/bin/env bash
# The search under attack, on virtual LANs built on this machine (nothing is
# sent on the real interfaces).  The mDNS LAN: a querier, an attacker
# (bench/mdns_attack.py) and DEVICES avahi-daemon devices, each announcing one
# instance "Bench devN" of _sorvattack._tcp.  Each attack gets a fresh search
# (bench/search_watch, the library through its public interface, filter word
# "bench"); 10 s into the attack a new device publishes "Late <n> Bench".  The
# unicast DNS LAN (built only for its attacks, as scripts/demo-dns.sh builds
# it): a querier whose own resolver file names BIND 9 on host "dns", which
# serves example.test. with three _http._tcp services "Zone ...", and an
# attacker.  Per attack it prints: packets the attacker sent, real instances
# found / still listed at the end, ms from publishing the late instance until
# it is listed (avahi's ~1 s of probing included) / from the late device's
# first announcement of it (read from a capture on that device) until it is
# listed, the search loop's CPU time, peak RSS, records in the lists (IPv4 +
# IPv6), and what the querier sent in the whole search: packets and bytes (UDP
# and TCP payload, mDNS and unicast DNS), from a capture on the switch's end
# of the querier's veth.
#
# Then the situations of a big or changing LAN: 200 services and 2,000
# services on one device, the querier's interface deleted and created again
# during a search, and Destroy while a search runs (under ThreadSanitizer too).
#
#   sudo bash scripts/attack_bench.sh                      everything (about 15 minutes)
#   ATTACKS="none ttl1-storm" EXTRAS="" sudo bash scripts/attack_bench.sh
#   DEVICES=5 SECONDS_PER_ATTACK=15 ...                    smaller and shorter
#   SEARCH_WATCH=/path/to/search_watch ...                  another build under test
#   TSAN_WATCH=/path/to/search_watch (built with -DSORVALEN_SANITIZE=thread), or TSAN=0
#
# Attacks (ATTACKS) on the mDNS LAN, SECONDS_PER_ATTACK (30) long: none
# (control), malformed, ptr-burst, ptr-stream, ptr-stream:first (the stream
# starts 2 s before the search), filter-names, filter-full (filter-word names
# with SRV, TXT and A), goodbye, cache-flush; of their own length:
#   ttl1-storm         3,000 other PTRs of the type announced once (the browse
#                      remembers them and lists them as known answers), then for
#                      20 s once a second one response with the same 50 PTRs at TTL 1
#   announce-withdraw  100 filter-word instances (PTR, SRV, A) announced, 0.4 s
#                      later withdrawn (TTL 0), 1.2 s later again: 30 times
#   announce-withdraw:move   the same, each time on another address (a new lease)
#   unique-flood       25 s of 300 packets/s, each a new filter-word instance
#                      (PTR, SRV, TXT, A) on one of 100 host names, whose address
#                      changes with every packet
# On the unicast DNS LAN:
#   foreign-domain     the attacker multicasts, 10 times a second from 2 s before
#                      the search, records under example.test.: a planted instance
#                      "Planted intruder" with SRV, TXT and A 203.0.113.66, and A
#                      203.0.113.99 / AAAA 2001:db8:bad::1 for printer.example.test.,
#                      a real instance's target.  Only the zone's three may be listed.
#   resolv-empty       2 s into a search of example.test. the DNS server stops
#                      answering (SIGSTOP); at 10 s, with the questions' refresh
#                      queries out, the querier's resolver file loses its name
#                      server; then an interface change in its namespace (a veth
#                      pair added and deleted, eth0 down and up).  search_watch
#                      follows the interfaces as an application does (calls
#                      RefreshInterfaces after a change).  The search must live on.
#   resolv-empty:no-refresh   the same, the application calling nothing: only the
#                      core's own watch of the interfaces
# Extras (EXTRAS): many200, many2000, iface, destroy.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
devices=${DEVICES:-15}
attack_seconds=${SECONDS_PER_ATTACK:-30}
attacks=${ATTACKS:-none malformed ptr-burst ptr-stream ptr-stream:first filter-names filter-full goodbye cache-flush \
  ttl1-storm announce-withdraw announce-withdraw:move unique-flood foreign-domain resolv-empty resolv-empty:no-refresh}
extras=${EXTRAS-many200 many2000 iface destroy}
build=${BUILD:-$root/build/release-bench}
vlan=(bash "$root/scripts/vlan.sh")
type=_sorvattack._tcp
py=/usr/bin/python3
attacker=("$py" "$root/bench/mdns_attack.py")

[ "$(id -u)" -eq 0 ] || { echo "needs root (network namespaces): sudo bash scripts/attack_bench.sh" >&2; exit 1; }
bash "$root/scripts/install-deps.sh"

watch=${SEARCH_WATCH:-}
if [ -z "$watch" ]; then
  echo "== building bench/search_watch (Release, $build)"
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSORVALEN_BUILD_TESTS=OFF >/dev/null
  cmake --build "$build" --target search_watch -j "$(nproc)" >/dev/null
  watch="$build/bench/search_watch"
fi
tsan_watch=${TSAN_WATCH:-}
if [ -z "$tsan_watch" ] && [ "${TSAN:-1}" = 1 ] && [[ " $extras " == *" destroy "* ]]; then
  echo "== building bench/search_watch with ThreadSanitizer ($build-tsan)"
  cmake -S "$root" -B "$build-tsan" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSORVALEN_SANITIZE=thread \
    -DSORVALEN_BUILD_TESTS=OFF -DSORVALEN_BUILD_TOOLS=OFF >/dev/null
  cmake --build "$build-tsan" --target search_watch -j "$(nproc)" >/dev/null
  tsan_watch="$build-tsan/bench/search_watch"
fi

work=$(mktemp -d)
run="sv$$x1"
dns_run="sv$$x2"
dns_lan=no
sent_pid=
cleanup() {
  [ -z "$sent_pid" ] || kill -INT "$sent_pid" 2>/dev/null || true
  "${vlan[@]}" destroy "$run" >/dev/null 2>&1 || true
  [ "$dns_lan" = no ] || "${vlan[@]}" destroy "$dns_run" >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT

echo "== building the LAN: querier, attacker, $devices devices"
"${vlan[@]}" create "$run" >/dev/null
"${vlan[@]}" add-lan "$run" 1 >/dev/null
for host in querier attacker late; do "${vlan[@]}" add-host "$run" "$host" 1 >/dev/null; done
for ((d = 1; d <= devices; d++)); do
  "${vlan[@]}" add-host "$run" "dev$d" 1 >/dev/null
  "${vlan[@]}" add-service "$run" "dev$d" "Bench dev$d" "$type" 8080 >/dev/null
  "${vlan[@]}" start-avahi "$run" "dev$d" --no-wait >/dev/null
done
for ((d = 1; d <= devices; d++)); do "${vlan[@]}" wait-avahi "$run" "dev$d" >/dev/null; done
"${vlan[@]}" start-avahi "$run" late >/dev/null

# The unicast DNS LAN, when an attack needs it: BIND 9 serving example.test.
# with three services, named in the querier's own resolver file.
build_dns_lan() {
  [ "$dns_lan" = no ] || return 0
  dns_lan=yes
  echo "== building the unicast DNS LAN: querier, BIND 9 for example.test. on 'dns', attacker"
  "${vlan[@]}" create "$dns_run" >/dev/null
  "${vlan[@]}" add-lan "$dns_run" 1 >/dev/null
  for host in querier dns attacker; do "${vlan[@]}" add-host "$dns_run" "$host" 1 >/dev/null; done
  local zone=("${vlan[@]}")
  "${zone[@]}" dns-address "$dns_run" dns printer 198.51.100.20 2001:db8:100::20 >/dev/null
  "${zone[@]}" dns-address "$dns_run" dns camera 198.51.100.30 2001:db8:100::30 >/dev/null
  "${zone[@]}" dns-address "$dns_run" dns builder 198.51.100.40 2001:db8:100::40 >/dev/null
  "${zone[@]}" dns-service "$dns_run" dns "Zone Printer" _http._tcp 80 printer "path=/" >/dev/null
  "${zone[@]}" dns-service "$dns_run" dns "Zone Camera" _http._tcp 8080 camera >/dev/null
  "${zone[@]}" dns-service "$dns_run" dns "Zone Builder" _http._tcp 8443 builder >/dev/null
  "${zone[@]}" start-dns "$dns_run" dns --zone example.test. --ttl 10 >/dev/null
  "${vlan[@]}" use-dns "$dns_run" querier dns >/dev/null
}

now_ms() { date +%s%3N; }
field() { # KEY LOGFILE: the last value of KEY=... in the file
  awk -v k="$1" '{ for (i = 1; i <= NF; i++) if (index($i, k "=") == 1) v = substr($i, length(k) + 2) } END { print v }' "$2"
}
# Waits until the watcher has started its search.
wait_started() {
  local i
  for ((i = 0; i < 100; i++)); do
    grep -q '^started' "$1" && return 0
    sleep 0.1
  done
  return 1
}

# What the querier sends is read from a capture on the switch's end of its
# veth, which goes on while the querier's own interface is down.
switch_port() { # RUN HOST: the switch namespace's end of the host's eth0
  local peer
  peer=$(ip -n "$("${vlan[@]}" netns "$1" "$2")" -o link show dev eth0 | sed -n 's/^[0-9]*: eth0@if\([0-9]*\):.*/\1/p')
  ip -n "$1-sw" -o link show | awk -F': ' -v i="$peer" '$1 == i { sub(/@.*/, "", $2); print $2 }'
}
sent_start() { # RUN HOST
  local v4 v6 port i
  v4=$("${vlan[@]}" ipv4 "$1" "$2")
  v6=$("${vlan[@]}" ipv6ll "$1" "$2")
  port=$(switch_port "$1" "$2")
  rm -f "$work/sent.pcap"
  # Headers are enough: the sizes come from the UDP and IP lengths.
  ip netns exec "$1-sw" tcpdump -i "$port" -n -s 128 -U -w "$work/sent.pcap" "src host $v4 or src host $v6" \
    </dev/null >"$work/sent.log" 2>&1 &
  sent_pid=$!
  for ((i = 0; i < 100; i++)); do
    grep -q "listening on" "$work/sent.log" && return 0
    sleep 0.1
  done
  echo "tcpdump did not start on $port: $(cat "$work/sent.log")" >&2
  exit 1
}
sent_stop() {
  kill -INT "$sent_pid" 2>/dev/null || true
  wait "$sent_pid" 2>/dev/null || true
  sent_pid=
}
sent_count() { # FILTER: "PACKETS BYTES" of the capture (bytes: UDP and TCP payload)
  { tcpdump -r "$work/sent.pcap" -n -q "$1" 2>/dev/null || true; } |
    awk '{
        if (match($0, /UDP, length [0-9]+/)) { p++; b += substr($0, RSTART + 12, RLENGTH - 12) }
        else if (match($0, /: tcp [0-9]+/)) { p++; b += substr($0, RSTART + 6, RLENGTH - 6) }
      }
      END { printf "%d %d\n", p, b }'
}

# A table row: ATTACK|ATTACKER PACKETS|FOUND|AT END|LATE|CPU|RSS|RECORDS|SENT PACKETS|SENT BYTES|NOTES
declare -a rows=()
watch_row() { # ENTRY ATTACKER_PACKETS REAL LATE NOTES (figures from watch.log and the capture)
  local w="$work/watch.log" p b k
  read -r p b < <(sent_count "")
  declare -A f
  # A search that did not live to its closing line has no figures.
  for k in real_ever real_end cpu_ms rss_kb v4 v6; do
    f[$k]=$(field "$k" "$w")
    f[$k]=${f[$k]:-?}
  done
  rows+=("$1|$2|${f[real_ever]}/$3|${f[real_end]}/$3|$4|${f[cpu_ms]}|${f[rss_kb]}|${f[v4]}+${f[v6]}|$p|$b|$5")
}

# Sets `args` (the attack tool's) and `length` (its seconds) for an attack on the mDNS LAN.
lan_attack() {
  length=$attack_seconds
  local bound=(--seconds "$attack_seconds" --count 1000000)
  case "$1" in
    none) args=() ;;
    malformed) args=(malformed --rate 5000 --v6 "${bound[@]}") ;;
    ptr-burst) args=(ptr-burst --count 600) ;;
    ptr-stream) args=(ptr-stream --rate 5000 "${bound[@]}") ;;
    filter-names) args=(filter-names --word Bench --rate 300 "${bound[@]}") ;;
    filter-full) args=(filter-names --full --word Bench --rate 300 "${bound[@]}") ;;
    goodbye) args=(goodbye --rate 1000 "${bound[@]}") ;;
    cache-flush) args=(cache-flush --rate 1000 "${bound[@]}") ;;
    ttl1-storm) args=(ttl1-storm --planted 3000 --storm 50 --seconds 20 --count 100000) length=22 ;;
    announce-withdraw)
      args=(announce-withdraw --word Bench --instances 100 --cycles 30 --hold 0.4 --gap 1.2 --seconds 60 --count 100000)
      length=48
      ;;
    unique-flood) args=(unique-flood --word Bench --hosts 100 --rate 300 --seconds 25 --count 7500) length=25 ;;
    *) return 1 ;;
  esac
  [ ${#args[@]} -eq 0 ] || args+=(--type "$type")
}

n=0
run_lan_attack() { # ENTRY
  local entry=$1 mode=${1%%:*} first=no apid='' wpid late announced answered sent seen late_ms watch_seconds
  [ "$entry" = "${entry%:first}" ] || first=yes
  lan_attack "$mode" || { echo "unknown attack '$entry'" >&2; exit 2; }
  [ "$entry" != announce-withdraw:move ] || args+=(--move)
  n=$((n + 1))
  late="Late $n Bench"
  echo "== attack: $entry"
  sent_start "$run" querier
  : >"$work/attack.log"
  watch_seconds=$((length + 7))
  if [ "$first" = yes ]; then
    "${vlan[@]}" exec "$run" attacker "${attacker[@]}" "${args[@]}" >"$work/attack.log" 2>&1 &
    apid=$!
    sleep 2
  fi
  : >"$work/watch.log"
  "${vlan[@]}" exec "$run" querier "$watch" --type "$type" --filter bench --seconds "$watch_seconds" \
    --real "Bench dev" --watch "$late" >"$work/watch.log" 2>&1 &
  wpid=$!
  wait_started "$work/watch.log" || { cat "$work/watch.log"; exit 1; }
  if [ "$first" = no ]; then
    sleep 2
    if [ ${#args[@]} -gt 0 ]; then
      "${vlan[@]}" exec "$run" attacker "${attacker[@]}" "${args[@]}" >"$work/attack.log" 2>&1 &
      apid=$!
    fi
  fi
  sleep 10
  "${vlan[@]}" capture-start "$run" late eth0 >/dev/null
  announced=$(now_ms)
  # Under a flood the late device's own daemon may take longer than add-service waits.
  "${vlan[@]}" add-service "$run" late "$late" "$type" 8081 >/dev/null 2>&1 || echo "   (the late device's avahi-daemon was slow to publish)"
  [ -z "$apid" ] || wait "$apid" || true
  wait "$wpid" || { echo "the search ended with status $?"; cat "$work/watch.log"; }
  "${vlan[@]}" remove-service "$run" late "$late" "$type" >/dev/null
  sent_stop
  "${vlan[@]}" capture-stop "$run" late eth0 >/dev/null
  answered=$("${vlan[@]}" capture-first-answer "$run" late eth0 "$late")
  tail -n 1 "$work/attack.log" | sed 's/^/   attacker: /'
  tail -n 1 "$work/watch.log" | sed 's/^/   search:   /'
  sent=$(field packets "$work/attack.log")
  seen=$(field watch_epoch_ms "$work/watch.log")
  late_ms=never
  if [ -n "$seen" ] && [ "$seen" != -1 ]; then
    late_ms=$((seen - announced))
    [ "$answered" = -1 ] || late_ms="$late_ms / $((seen - answered))"
  fi
  watch_row "$entry" "${sent:-0}" "$devices" "$late_ms" ""
  if [ "$mode" = none ]; then
    read -r quiet_packets quiet_bytes < <(sent_count "")
    quiet_seconds=$watch_seconds
  fi
  sleep 3 # the devices' rate limits and caches settle
}

# The search's fate, from its exit status and log.
survival() { # STATUS
  if [ "$1" -eq 0 ] && grep -q '^names_ever=' "$work/watch.log"; then
    echo yes
  elif [ "$1" -gt 128 ]; then
    echo "no, killed by SIG$(kill -l $(($1 - 128)))"
  else
    echo "no, exit status $1"
  fi
}

dns_notes() { # the unicast DNS part of what the querier sent
  local p b
  read -r p b < <(sent_count "port 53")
  echo "$p of the packets / $b B unicast DNS"
}

named_pid() {
  local ns pid
  ns=$("${vlan[@]}" netns "$dns_run" dns)
  for pid in $(ip netns pids "$ns"); do
    [ "$(cat "/proc/$pid/comm" 2>/dev/null)" != named ] || echo "$pid"
  done
}

run_foreign_domain() {
  local apid status=0 planted addresses
  echo "== attack: foreign-domain"
  sent_start "$dns_run" querier
  "${vlan[@]}" exec "$dns_run" attacker "${attacker[@]}" foreign-domain --type _http._tcp --domain example.test. \
    --word Planted --victim printer --address 203.0.113.66 --victim-address 203.0.113.99 --rate 10 --seconds 24 \
    --count 300 >"$work/attack.log" 2>&1 &
  apid=$!
  sleep 2
  "${vlan[@]}" exec "$dns_run" querier "$watch" --type _http._tcp --domain example.test. --seconds 25 \
    --real "Zone " --planted Planted --planted-address 203.0.113.66,203.0.113.99,2001:db8:bad::1 \
    >"$work/watch.log" 2>&1 || status=$?
  wait "$apid" || true
  sent_stop
  tail -n 1 "$work/attack.log" | sed 's/^/   attacker: /'
  tail -n 1 "$work/watch.log" | sed 's/^/   search:   /'
  planted=no
  [ "$(field planted_ever "$work/watch.log")" = 0 ] || planted=yes
  addresses=$(field planted_address_ever "$work/watch.log")
  watch_row foreign-domain "$(field packets "$work/attack.log")" 3 - \
    "planted instance listed: $planted; planted addresses listed: ${addresses:-?} of 3; search survived: $(survival $status); $(dns_notes)"
}

# The name server falls silent, then leaves the resolver file, then the
# querier's namespace sees interface changes.
run_resolv_empty() { # ENTRY
  local entry=$1 follow=() wpid status=0 named ns resolver saved
  [ "$entry" != resolv-empty ] || follow=(--follow-interfaces)
  echo "== attack: $entry"
  ns=$("${vlan[@]}" netns "$dns_run" querier)
  resolver=/etc/netns/$ns/resolv.conf
  saved=$(cat "$resolver")
  sent_start "$dns_run" querier
  : >"$work/watch.log"
  "${vlan[@]}" exec "$dns_run" querier "$watch" --type _http._tcp --domain example.test. --seconds 20 \
    --real "Zone " "${follow[@]}" >"$work/watch.log" 2>&1 &
  wpid=$!
  wait_started "$work/watch.log" || { cat "$work/watch.log"; exit 1; }
  sleep 2
  named=$(named_pid)
  [ -n "$named" ] || { echo "named is not running on dns" >&2; exit 1; }
  kill -STOP "$named"
  sleep 8 # the refresh queries at about 80 % of the zone's 10 s TTL go out and stay unanswered
  echo "# run $dns_run: the name server is gone" >"$resolver" # in place: the running search reads this file
  sleep 0.5
  ip -n "$ns" link add svx0 type veth peer name svx1
  ip -n "$ns" link set svx0 up
  sleep 1
  ip -n "$ns" link del svx0
  sleep 1
  ip -n "$ns" link set eth0 down
  sleep 1
  ip -n "$ns" link set eth0 up
  wait "$wpid" || status=$?
  sent_stop
  kill -CONT "$named"
  echo "$saved" >"$resolver"
  grep -v ' t=' "$work/watch.log" | tail -n 8 | sed 's/^/   search:   /'
  watch_row "$entry" - 3 - "search survived: $(survival $status); RefreshInterfaces calls: $(grep -c '^interfaces changed' "$work/watch.log"); $(dns_notes)"
  sleep 2 # eth0's link-local address is back for the next capture
}

quiet_packets=
for entry in $attacks; do
  case "$entry" in
    foreign-domain) build_dns_lan && run_foreign_domain ;;
    resolv-empty | resolv-empty:no-refresh) build_dns_lan && run_resolv_empty "$entry" ;;
    *) run_lan_attack "$entry" ;;
  esac
done

declare -a extra_rows=()
for extra in $extras; do
  echo "== $extra"
  case "$extra" in
    many200 | many2000)
      count=${extra#many}
      seconds=20
      [ "$count" -lt 2000 ] || seconds=60
      host="big$count"
      "${vlan[@]}" add-host "$run" "$host" 1 >/dev/null
      "${vlan[@]}" add-services "$run" "$host" "Many" "_sorvmany$count._tcp" 9000 "$count" >/dev/null
      "${vlan[@]}" start-avahi "$run" "$host" >/dev/null
      "${vlan[@]}" exec "$run" querier "$watch" --type "_sorvmany$count._tcp" --seconds "$seconds" \
        --expect "$count" >"$work/watch.log" 2>&1 || true
      "${vlan[@]}" stop-avahi "$run" "$host" >/dev/null
      tail -n 1 "$work/watch.log" | sed 's/^/   search: /'
      all=$(field all_ms "$work/watch.log")
      [ "$all" != -1 ] || all="not all"
      extra_rows+=("1 device x $count services, ${seconds} s search|$(field names_ever "$work/watch.log") ever listed, $(field names_end "$work/watch.log") at the end, all listed after: $all ms; records $(field v4 "$work/watch.log") IPv4 + $(field v6 "$work/watch.log") IPv6, duplicates $(field dup_v4 "$work/watch.log") + $(field dup_v6 "$work/watch.log"); loop CPU $(field cpu_ms "$work/watch.log") ms")
      ;;
    iface)
      # Deleted 3 s into the search, created again 1 s later; a new instance
      # is published at 8 s; a later Start in the same process at 25 s.
      : >"$work/watch.log"
      "${vlan[@]}" exec "$run" querier "$watch" --type "$type" --filter bench --seconds 40 --real "Bench dev" \
        --watch "Late iface Bench" --restart-at 25 >"$work/watch.log" 2>&1 &
      wpid=$!
      wait_started "$work/watch.log"
      sleep 3
      "${vlan[@]}" recreate-iface "$run" querier eth0 1
      sleep 4
      announced=$(now_ms)
      "${vlan[@]}" add-service "$run" late "Late iface Bench" "$type" 8081 >/dev/null
      wait "$wpid" || true
      "${vlan[@]}" remove-service "$run" late "Late iface Bench" "$type" >/dev/null
      sed 's/^/   search: /' "$work/watch.log" | grep -v ' t=' || true
      seen=$(field watch_epoch_ms "$work/watch.log")
      late_ms="never listed in 32 s, not even after a later Start"
      [ -z "$seen" ] || [ "$seen" = -1 ] || late_ms="listed after $((seen - announced)) ms"
      extra_rows+=("interface deleted and created again (same name)|instance published 4 s after it: $late_ms; devices listed 15 s after that Start (cached ones count): $(field real_end "$work/watch.log")/$devices")
      ;;
    destroy)
      crashes=0
      for i in 1 2 3 4 5; do
        "${vlan[@]}" exec "$run" querier "$watch" --type "$type" --filter bench --seconds 10 --destroy-at 2 \
          >"$work/watch.log" 2>&1 || { crashes=$((crashes + 1)); tail -n 3 "$work/watch.log" | sed 's/^/   /'; }
      done
      result="release build: $crashes crashes in 5 runs"
      if [ -n "$tsan_watch" ]; then
        TSAN_OPTIONS="halt_on_error=0 report_signal_unsafe=0" "${vlan[@]}" exec "$run" querier "$tsan_watch" \
          --type "$type" --filter bench --seconds 10 --destroy-at 2 >"$work/tsan.log" 2>&1 && status=0 || status=$?
        races=$(grep -c 'WARNING: ThreadSanitizer' "$work/tsan.log" || true)
        result="$result; ThreadSanitizer: $races reports, exit status $status"
        grep -m 3 -A 3 'WARNING: ThreadSanitizer' "$work/tsan.log" | sed 's/^/   /' || true
      fi
      extra_rows+=("Destroy while a search runs|$result")
      ;;
    *) echo "unknown extra '$extra'" >&2; exit 2 ;;
  esac
done

echo
echo "Search under attack: $devices avahi-daemon devices, attacks of ${attack_seconds} s (ttl1-storm 22 s,"
echo "announce-withdraw 48 s, unique-flood 25 s) starting 2 s after the search (ptr-stream:first: 2 s before"
echo "it), the search ending 5 s after the attack; foreign-domain and resolv-empty on the unicast DNS LAN"
echo "(3 services in the zone).  'querier sent': packets / bytes in the whole search."
row_format='%-24s | %8s | %6s | %6s | %13s | %8s | %8s | %11s | %18s | %s\n'
# shellcheck disable=SC2059 # the format is ours
printf "$row_format" attack packets found "at end" "late (ms)" "CPU (ms)" "RSS (KB)" records "querier sent" notes
for row in "${rows[@]}"; do
  IFS='|' read -r a p f e l c r rec sp sb notes <<<"$row"
  # shellcheck disable=SC2059
  printf "$row_format" "$a" "$p" "$f" "$e" "$l" "$c" "$r" "$rec" "$sp / $sb" "$notes"
done
[ -z "$quiet_packets" ] || echo "The querier at rest (none): $quiet_packets packets / $quiet_bytes bytes in ${quiet_seconds} s."
if [ ${#extra_rows[@]} -gt 0 ]; then
  echo
  for row in "${extra_rows[@]}"; do
    echo "- ${row%%|*}: ${row#*|}"
  done
fi
