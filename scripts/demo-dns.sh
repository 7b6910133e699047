#!/usr/bin/env bash
# Shows sorvalen-mdns searching another domain than local. over unicast DNS
# (DNS-SD in ordinary DNS, as sites publish services that live beyond one
# link): a real DNS server (BIND 9) on a virtual LAN built on this machine
# serves the zone example.test. with a few services, the querier's own
# resolver file names that server, and the tool finds the services, then sees
# a change of the zone.  Nothing is sent on the machine's real interfaces nor
# to its own name servers; everything is removed at the end.
#
#   sudo bash scripts/demo-dns.sh
#
# Installs the Debian packages it needs, builds a Release build into
# build/demo and needs root for the network namespaces.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

if [ "$(id -u)" -ne 0 ]; then
  cat >&2 <<EOF
The demo builds a virtual LAN with network namespaces, which needs root:

  sudo bash scripts/demo-dns.sh

To search a domain of your own site's DNS instead (no root needed; the tool
asks the name servers of /etc/resolv.conf):

  cmake -S . -B build/demo -G Ninja -DCMAKE_BUILD_TYPE=Release
  cmake --build build/demo --target sorvalen-mdns
  build/demo/tools/sorvalen-mdns search _http._tcp --domain your.domain.example. --timeout 5
EOF
  exit 1
fi

source "$root/scripts/demo-common.sh"

step "Creating a virtual LAN (192.0.2.0/24) with a querier and a DNS server"
"${vlan[@]}" create "$run"
"${vlan[@]}" add-lan "$run" 1
"${vlan[@]}" add-host "$run" querier 1
"${vlan[@]}" add-host "$run" dns 1
printf '  %-8s %s\n' querier "$("${vlan[@]}" ipv4 "$run" querier)" dns "$("${vlan[@]}" ipv4 "$run" dns)"

step "Starting BIND 9 on 'dns' for the zone example.test. (services on another link of the site)"
dns() { "${vlan[@]}" "$1" "$run" dns "${@:2}"; }
dns dns-address printer 198.51.100.20 2001:db8:100::20
dns dns-address camera 198.51.100.30 2001:db8:100::30
dns dns-address builder 198.51.100.40 2001:db8:100::40
dns dns-service "Office Printer" _http._tcp 80 printer "path=/"
dns dns-service "Office Printer" _ipp._tcp 631 printer "rp=ipp/print"
dns dns-service "Lab Camera" _http._tcp 8080 camera "path=/live"
dns dns-service "Build Server" _http._tcp 8443 builder
dns start-dns --zone example.test. --ttl 10
dns dns-zone | grep -v "^;" | sed "s/^/  /"

step "Pointing the querier's resolver file at it"
file=$("${vlan[@]}" use-dns "$run" querier dns)
echo "  $file (ip netns exec shows it as /etc/resolv.conf):"
sed 's/^/    /' "$file"

search() {
  local status=0
  "${vlan[@]}" exec "$run" querier timeout 30 "$tool" search _http._tcp --domain example.test. --timeout 3 |
    tee "$build/demo-dns-search.txt" || status=$?
  [ "$status" -eq 0 ] && [ -s "$build/demo-dns-search.txt" ] ||
    echo "(the search ended with status $status and found nothing)"
}

step "sorvalen-mdns search _http._tcp --domain example.test. --timeout 3   (run on the querier)"
search

step "Changing the zone: Lab Camera removed, Build Server moved to port 9443; reloading"
dns dns-remove-service "Lab Camera" _http._tcp
dns dns-service "Build Server" _http._tcp 9443 builder
echo "  the server serves the new zone now"

step "sorvalen-mdns search _http._tcp --domain example.test. --timeout 3   (again)"
search

step "Removing the virtual LAN"
cleanup
trap - EXIT
echo "done"
