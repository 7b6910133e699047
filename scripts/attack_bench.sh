#!/usr/bin/env bash
# The search under attack, on a virtual LAN built on this machine (nothing is
# sent on the real interfaces): a querier, an attacker (bench/mdns_attack.py)
# and DEVICES avahi-daemon devices, each announcing one instance "Bench devN"
# of _sorvattack._tcp.  Each attack gets a fresh search (bench/search_watch,
# the library through its public interface, filter word "bench"); 10 s into
# the attack a new device publishes "Late <n> Bench".  Per attack it prints:
# packets the attacker sent, real devices found / still listed at the end,
# ms from publishing the late instance until it is listed (avahi's ~1 s of
# probing included) / from the late device's first announcement of it (read
# from a capture on that device) until it is listed, the search loop's CPU time, peak RSS, records in the
# lists (IPv4 + IPv6) and the queries the querier sent.
#
# Then the situations of a big or changing LAN: 200 services and 2,000
# services on one device, the querier's interface deleted and created again
# during a search, and Destroy while a search runs (under ThreadSanitizer too).
#
#   sudo bash scripts/attack_bench.sh                      everything (about 12 minutes)
#   ATTACKS="none ptr-burst" EXTRAS="" sudo bash scripts/attack_bench.sh
#   DEVICES=5 SECONDS_PER_ATTACK=15 ...                    smaller and shorter
#   SEARCH_WATCH=/path/to/search_watch ...                  another build under test
#   TSAN_WATCH=/path/to/search_watch (built with -DSORVALEN_SANITIZE=thread), or TSAN=0
#
# Attacks (ATTACKS): none (control), malformed, ptr-burst, ptr-stream,
# ptr-stream:first (the stream starts 2 s before the search), filter-names,
# filter-full (filter-word names with SRV, TXT and A), goodbye, cache-flush.
# Extras (EXTRAS): many200, many2000, iface, destroy.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
devices=${DEVICES:-15}
attack_seconds=${SECONDS_PER_ATTACK:-30}
attacks=${ATTACKS:-none malformed ptr-burst ptr-stream ptr-stream:first filter-names filter-full goodbye cache-flush}
extras=${EXTRAS-many200 many2000 iface destroy}
build=${BUILD:-$root/build/bench}
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
cleanup() { "${vlan[@]}" destroy "$run" >/dev/null 2>&1 || true; rm -rf "$work"; }
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
qv4=$("${vlan[@]}" ipv4 "$run" querier)
qv6=$("${vlan[@]}" ipv6ll "$run" querier)

now_ms() { date +%s%3N; }
field() { # KEY LOGFILE: the last value of KEY=... in the file
  awk -v k="$1" '{ for (i = 1; i <= NF; i++) if (index($i, k "=") == 1) v = substr($i, length(k) + 2) } END { print v }' "$2"
}
queries_sent() {
  local a c
  read -r a _ < <("${vlan[@]}" capture-count "$run" querier eth0 "$qv4" queries)
  read -r c _ < <("${vlan[@]}" capture-count "$run" querier eth0 "$qv6" queries)
  echo $((a + c))
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

declare -a rows=()
n=0
for entry in $attacks; do
  n=$((n + 1))
  mode=${entry%%:*}
  first=no
  [ "$entry" = "${entry%:first}" ] || first=yes
  args=()
  case "$mode" in
    none) ;;
    malformed) args=(malformed --rate 5000 --v6) ;;
    ptr-burst) args=(ptr-burst --count 600) ;;
    ptr-stream) args=(ptr-stream --rate 5000) ;;
    filter-names) args=(filter-names --word Bench --rate 300) ;;
    filter-full) args=(filter-names --full --word Bench --rate 300) ;;
    goodbye) args=(goodbye --rate 1000) ;;
    cache-flush) args=(cache-flush --rate 1000) ;;
    *) echo "unknown attack '$entry'" >&2; exit 2 ;;
  esac
  [ ${#args[@]} -eq 0 ] || args+=(--type "$type" --seconds "$attack_seconds" --count 1000000)
  [ "$mode" != ptr-burst ] || args=(ptr-burst --count 600 --type "$type")
  late="Late $n Bench"
  echo "== attack: $entry"
  "${vlan[@]}" capture-start "$run" querier eth0 "src host $qv4 or src host $qv6" >/dev/null
  : >"$work/attack.log"
  watch_seconds=$((attack_seconds + 7))
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
    else
      apid=
    fi
  fi
  sleep 10
  "${vlan[@]}" capture-start "$run" late eth0 >/dev/null
  announced=$(now_ms)
  # Under a flood the late device's own daemon may take longer than add-service waits.
  "${vlan[@]}" add-service "$run" late "$late" "$type" 8081 >/dev/null 2>&1 || echo "   (the late device's avahi-daemon was slow to publish)"
  [ -z "$apid" ] || wait "$apid" || true
  apid=
  wait "$wpid" || { echo "the search ended with status $?"; cat "$work/watch.log"; }
  "${vlan[@]}" remove-service "$run" late "$late" "$type" >/dev/null
  "${vlan[@]}" capture-stop "$run" querier eth0 >/dev/null
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
  rows+=("$entry|${sent:-0}|$(field real_ever "$work/watch.log")/$devices|$(field real_end "$work/watch.log")/$devices|$late_ms|$(field cpu_ms "$work/watch.log")|$(field rss_kb "$work/watch.log")|$(field v4 "$work/watch.log")+$(field v6 "$work/watch.log")|$(queries_sent)")
  sleep 3 # the devices' rate limits and caches settle
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
echo "Search under attack: $devices avahi-daemon devices, attacks of ${attack_seconds} s starting 2 s after the search"
echo "(ptr-stream:first: 2 s before it), the search ending 5 s after the attack."
printf '%-17s | %9s | %6s | %6s | %13s | %8s | %8s | %11s | %8s\n' attack "packets" found "at end" "late (ms)" \
  "CPU (ms)" "RSS (KB)" "records" "queries"
for row in "${rows[@]}"; do
  IFS='|' read -r a p f e l c r rec q <<<"$row"
  printf '%-17s | %9s | %6s | %6s | %13s | %8s | %8s | %11s | %8s\n' "$a" "$p" "$f" "$e" "$l" "$c" "$r" "$rec" "$q"
done
if [ ${#extra_rows[@]} -gt 0 ]; then
  echo
  for row in "${extra_rows[@]}"; do
    echo "- ${row%%|*}: ${row#*|}"
  done
fi
