#!/usr/bin/env bash
# What people do with the devices they find, shown with sorvalen-mdns on a
# virtual LAN built on this machine: TXT attributes (a binary value and a bare
# key from a python3-zeroconf lamp), the service types on the link, a subtype,
# a host name, and a search that follows the devices: a printer unplugged
# without a goodbye leaves, a lamp that another host says goodbye for stays.
# Nothing is sent on the machine's real interfaces; everything is removed at
# the end.
#
#   sudo bash scripts/demo-devices.sh
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

if [ "$(id -u)" -ne 0 ]; then
  echo "the demo builds a virtual LAN with network namespaces, which needs root: sudo bash $0" >&2
  exit 1
fi

source "$root/scripts/demo-common.sh"

step "Creating a virtual LAN with a querier, a printer (avahi-daemon), a lamp (python3-zeroconf) and a stranger"
"${vlan[@]}" create "$run"
"${vlan[@]}" add-lan "$run" 1
for host in querier printer lamp stranger; do
  "${vlan[@]}" add-host "$run" "$host" 1
done
"${vlan[@]}" add-service "$run" printer "Office Printer" _http._tcp,_printer._sub._http._tcp 80 "path=/" "note=color"
"${vlan[@]}" add-service "$run" printer "Office Printer" _ipp._tcp 631 "rp=ipp/print"
"${vlan[@]}" add-service "$run" lamp "Desk Lamp" _http._tcp 8080 "model=Lamp One" "dimmable" "hex:id=00ff80"
"${vlan[@]}" start-avahi "$run" printer --name printer
"${vlan[@]}" start-zeroconf "$run" lamp --name lamp

on_querier() { "${vlan[@]}" exec "$run" querier timeout 60 "$tool" "$@"; }

step "sorvalen-mdns search -t 3 _http._tcp   (TXT in the fifth column)"
on_querier search -t 3 _http._tcp || true

step "sorvalen-mdns search -t 3 --json -n lamp _http._tcp   (TXT as a JSON object)"
on_querier search -t 3 --json -n lamp _http._tcp || true

step "sorvalen-mdns types -t 3"
on_querier types -t 3 || true

step "sorvalen-mdns search -t 3 --subtype _printer _http._tcp"
on_querier search -t 3 --subtype _printer _http._tcp || true

step "sorvalen-mdns resolve printer.local"
on_querier resolve printer.local || true

# A goodbye that the lamp never sent, multicast by the stranger.
forge_goodbye() {
  "${vlan[@]}" exec "$run" stranger python3 - "$("${vlan[@]}" ipv4 "$run" stranger)" <<'EOF'
import socket, sys
def name(text):
    return b"".join(bytes([len(l)]) + l.encode() for l in text.split(".")) + b"\0"
ptr = name("Desk Lamp._http._tcp.local")
record = name("_http._tcp.local") + bytes([0, 12, 0, 1, 0, 0, 0, 0, 0, len(ptr)]) + ptr
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind(("", 5353))
s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 255)
s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(sys.argv[1]))
s.sendto(bytes([0, 0, 0x84, 0, 0, 0, 0, 1, 0, 0, 0, 0]) + record, ("224.0.0.251", 5353))
EOF
}

stamp() { while IFS= read -r line; do printf '%6.1f s  %s\n' "$(($(date +%s%N) / 1000000 - start_ms))e-3" "$line"; done; }

step "A search that follows the devices for 40 s: at 12 s the stranger sends a goodbye for the lamp, at 15 s the printer loses power"
start_ms=$(($(date +%s%N) / 1000000))
(on_querier search -t 40 _http._tcp || true) | stamp &
search=$!
sleep 12
forge_goodbye && echo "  (12 s: the stranger multicast a goodbye for Desk Lamp)"
sleep 3
"${vlan[@]}" kill-avahi "$run" printer && echo "  (15 s: the printer's avahi-daemon killed with SIGKILL: no goodbye)"
wait "$search"

step "Removing the virtual LAN"
cleanup
trap - EXIT
echo "done"
