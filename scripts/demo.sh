#!/usr/bin/env bash
# Shows sorvalen-mdns at work on a small virtual home network built on this
# machine: a TV, a speaker and a printer announced by avahi-daemon (IPv4 and
# IPv6), each in its own network namespace, and a querier that searches for
# them and then asks the printer directly.  Nothing is sent on the machine's
# real interfaces; everything is removed at the end.
#
#   sudo bash scripts/demo.sh
#
# Installs the Debian packages it needs, builds a Release build into
# build/demo and needs root for the network namespaces.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

if [ "$(id -u)" -ne 0 ]; then
  cat >&2 <<EOF
The demo builds a virtual LAN with network namespaces, which needs root:

  sudo bash scripts/demo.sh

To search your own network instead (no root needed):

  cmake -S . -B build/demo -G Ninja -DCMAKE_BUILD_TYPE=Release
  cmake --build build/demo --target sorvalen-mdns
  build/demo/tools/sorvalen-mdns search _http._tcp --timeout 10
EOF
  exit 1
fi

source "$root/scripts/demo-common.sh"

step "Creating a virtual LAN (192.0.2.0/24 and IPv6 link-local) with four hosts"
"${vlan[@]}" create "$run"
"${vlan[@]}" add-lan "$run" 1
for host in querier tv speaker printer; do
  "${vlan[@]}" add-host "$run" "$host" 1
done

service() { "${vlan[@]}" add-service "$run" "$@"; }
service tv "Living Room TV" _googlecast._tcp 8009 "fn=Living Room TV" "md=Chromecast"
service tv "Living Room TV" _airplay._tcp 7000 "model=AppleTV5,3"
service tv "Living Room TV" _http._tcp 80 "path=/"
service speaker "Kitchen Speaker" _spotify-connect._tcp 4070 "CPath=/zc"
service speaker "0253AB000301@Kitchen Speaker" _raop._tcp 7000 "am=Speaker"
service speaker "Kitchen Speaker" _http._tcp 80 "path=/"
service printer "Office Printer" _ipp._tcp 631 "rp=ipp/print" "ty=Office Printer"
service printer "Office Printer" _http._tcp 80 "path=/"

step "Starting avahi-daemon on the TV, the speaker and the printer"
for host in tv speaker printer; do
  "${vlan[@]}" start-avahi "$run" "$host" --name "$host" --no-wait
done
for host in tv speaker printer; do
  "${vlan[@]}" wait-avahi "$run" "$host"
  printf '  %-8s %-15s %s\n' "$host" "$("${vlan[@]}" ipv4 "$run" "$host")" "$("${vlan[@]}" ipv6ll "$run" "$host")"
done

# Until the tool finds something, show what avahi itself sees from a separate
# observer host, so the demo still tells whether the LAN works.
avahi_view() {
  "${vlan[@]}" add-host "$run" observer 1 >/dev/null 2>&1 || true
  "${vlan[@]}" start-avahi "$run" observer --dbus >/dev/null 2>&1 || return 0
  echo "what avahi-browse sees on the same LAN:"
  "${vlan[@]}" browse "$run" observer _http._tcp |
    awk -F';' '$1 == "=" { gsub(/\\032/, " ", $4); printf "  %-20s %-28s port %s\n", $4, $8, $9 }' || true
}

step "sorvalen-mdns search _http._tcp --timeout 5   (run on the querier)"
status=0
"${vlan[@]}" exec "$run" querier timeout 30 "$tool" search _http._tcp --timeout 5 | tee "$build/demo-search.txt" ||
  status=$?
if [ "$status" -ne 0 ] || [ ! -s "$build/demo-search.txt" ]; then
  echo "(the search ended with status $status and found nothing)"
  avahi_view
fi

printer=$("${vlan[@]}" ipv4 "$run" printer)
step "sorvalen-mdns lookup $printer _http._tcp.local   (one unicast question to the printer)"
status=0
"${vlan[@]}" exec "$run" querier timeout 30 "$tool" lookup "$printer" _http._tcp.local || status=$?
[ "$status" -eq 0 ] || echo "(the lookup ended with status $status)"

step "Removing the virtual LAN"
cleanup
trap - EXIT
echo "done"
