#!/usr/bin/env bash
# Virtual LANs on this machine for tests, benchmarks and the demo: network
# namespaces joined by veth pairs to Linux bridges, with avahi-daemon as the
# responder on device hosts.  Nothing is ever attached to the host's own
# interfaces.  Needs root.
#
# A run is named RUN (matching sv<owner-pid>[x<n>], e.g. sv4711x1); every
# namespace of the run is called RUN-<name>, so parallel runs never clash and a
# run whose owner process has died is recognised as stale.
#
#   vlan.sh create RUN                      state folder + the switch namespace RUN-sw
#   vlan.sh add-lan RUN N                   LAN N (1..3): bridge brN in RUN-sw
#   vlan.sh add-host RUN HOST N [N...]      namespace RUN-HOST, eth0 on LAN N, eth1 on the next...
#   vlan.sh netns RUN HOST                  prints the namespace name
#   vlan.sh ipv4 RUN HOST [IFACE]           prints the host's IPv4 address (default eth0)
#   vlan.sh ipv6ll RUN HOST [IFACE]         prints the host's IPv6 link-local address
#   vlan.sh exec RUN HOST CMD...            runs CMD inside the host's namespace
#   vlan.sh set-ipv4 RUN HOST IFACE ADDR/LEN  replaces the interface's IPv4 address (e.g. a
#                                           169.254/16 one, as a device without DHCP takes)
#   vlan.sh start-avahi RUN HOST [--dbus] [--name DEVICE] [--interfaces eth0,eth1] [--no-wait]
#                                           starts avahi-daemon and waits until it has announced its
#                                           services; --dbus gives it a private system bus so that
#                                           avahi-browse works there
#   vlan.sh wait-avahi RUN HOST             waits for a daemon started with --no-wait
#   vlan.sh add-service RUN HOST NAME TYPE PORT [TXT...]
#                                           publishes a service (waits until established if running);
#                                           TYPE may go on with ",_printer._sub._app._tcp" subtypes; a TXT
#                                           "key" has no value, "hex:key=00ff" a binary one
#   vlan.sh remove-service RUN HOST NAME TYPE
#                                           withdraws it (the daemon sends goodbye packets)
#   vlan.sh stop-avahi RUN HOST             stops the daemon (withdraws everything)
#   vlan.sh kill-avahi RUN HOST             kills it with SIGKILL: gone without a goodbye, as
#                                           after a power cut
#   vlan.sh browse RUN HOST TYPE            avahi-browse -rpt TYPE via the host's --dbus daemon
#   vlan.sh exec-avahi RUN HOST CMD...      runs CMD beside the host's --dbus daemon (its /run and
#                                           bus), e.g. a long-running avahi-browse
#   vlan.sh add-services RUN HOST PREFIX TYPE PORT COUNT
#                                           publishes COUNT services "PREFIX 1".."PREFIX COUNT" at
#                                           once (one reload; waits if the daemon runs)
#   vlan.sh start-zeroconf RUN HOST [--name DEVICE] [--no-wait]
#                                           a python3-zeroconf responder (bench/zeroconf_responder.py)
#                                           for the services added so far, instead of avahi-daemon;
#                                           waits until it has registered them
#   vlan.sh wait-zeroconf RUN HOST          waits for a responder started with --no-wait
#   vlan.sh stop-zeroconf RUN HOST          stops it (it sends goodbyes)
#   vlan.sh recreate-iface RUN HOST IFACE [GAP_SECONDS]
#                                           deletes the interface and creates it again after GAP (1 s):
#                                           same name, MAC, address and LAN, a new index
#   vlan.sh capture-start RUN HOST IFACE [EXPR]
#                                           tcpdump of udp port 5353 (and EXPR) into a pcap
#   vlan.sh capture-stop RUN HOST IFACE
#   vlan.sh capture-first-answer RUN HOST IFACE TEXT
#                                           epoch ms of the first response in the capture whose
#                                           records mention TEXT (an instance name), or -1
#   vlan.sh capture-count RUN HOST IFACE SRC [queries]
#                                           prints "PACKETS BYTES" sent by SRC to udp port 5353
#                                           (BYTES = sum of UDP payload sizes); "queries": only
#                                           DNS queries (QR clear), not responses
#   vlan.sh use-dns RUN HOST SERVER         points HOST's resolver file at the DNS server of host SERVER
#                                           (its eth0 IPv4 address, the only name server listed)
#   vlan.sh dns-address RUN HOST NAME ADDRESS...
#                                           A / AAAA records of NAME (a name inside the zone, e.g.
#                                           "printer") in the zone of HOST's DNS server
#   vlan.sh dns-service RUN HOST NAME TYPE PORT TARGET [TXT...]
#                                           a DNS-SD service in that zone (PTR, SRV to TARGET, TXT),
#                                           replacing one of the same NAME and TYPE
#   vlan.sh dns-remove-service RUN HOST NAME TYPE
#                                           takes it out of the zone
#   vlan.sh dns-services RUN HOST PREFIX TYPE COUNT PER_HOST
#                                           COUNT services "PREFIX 1".. of TYPE (port 8000+N, TXT
#                                           path=/N), PER_HOST on each target host "PREFIX-hostK"
#                                           (one A record each, in 198.18.0.0/15), in one reload
#   vlan.sh start-dns RUN HOST [--zone ZONE] [--ttl SECONDS]
#                                           starts BIND 9 (named) on HOST, authoritative for ZONE
#                                           (default example.test.) with the records above, each with
#                                           TTL SECONDS (default 10), and waits until it serves them.
#                                           With it running, dns-address, dns-service and
#                                           dns-remove-service reload the zone and wait until the server
#                                           serves the change
#   vlan.sh dns-zone RUN HOST               prints the zone file that it serves
#   vlan.sh stop-dns RUN HOST               stops it
#   vlan.sh destroy RUN                     kills every process of the run, deletes everything
#   vlan.sh cleanup-stale                   destroys the runs whose owner process is gone
#
# Resolver files: every host gets its own /etc/netns/RUN-HOST/resolv.conf, which
# `ip netns exec` (and so `vlan.sh exec`) mounts over /etc/resolv.conf for the
# program it starts.  It lists no name server until use-dns names one of the
# run's DNS servers, so no program of a run ever asks the machine's own
# resolver.  (A program that enters a namespace by setns alone does not get it.)
set -euo pipefail

STATE_ROOT=${SV_VLAN_STATE_ROOT:-/tmp/sorvalen-vlan}
NETNS_ETC=/etc/netns
BENCH_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")/../bench" && pwd)
PYTHON=/usr/bin/python3 # Debian's, which has python3-zeroconf
RUN_PATTERN='^sv[0-9]+(x[0-9]+)?$'

die() {
  echo "vlan.sh: $*" >&2
  exit 1
}

check_run() {
  [[ $1 =~ $RUN_PATTERN ]] || die "bad run name '$1' (expected sv<pid>[x<n>])"
}

check_host() {
  [[ $1 =~ ^[A-Za-z0-9_]{1,30}$ ]] || die "bad host name '$1' (letters, digits, _; up to 30)"
  [ "$1" != sw ] || die "'sw' is reserved for the switch namespace"
}

state_dir() { echo "$STATE_ROOT/$1"; }
host_dir() { echo "$STATE_ROOT/$1/hosts/$2"; }
host_ns() { echo "$1-$2"; }
switch_ns() { echo "$1-sw"; }

require_host() {
  check_run "$1"
  check_host "$2"
  [ -d "$(host_dir "$1" "$2")" ] || die "no host '$2' in run '$1'"
}

# Waits up to $1 tenths of a second for the command to succeed.
wait_for() {
  local tenths=$1
  shift
  local i
  for ((i = 0; i < tenths; i++)); do
    "$@" && return 0
    sleep 0.1
  done
  "$@"
}

run_owner() {
  local pid=${1#sv}
  echo "${pid%%x*}"
}

# The start time of a process (clock ticks since boot), empty when it is gone:
# together with the pid it tells a run's owner from a later process that got
# the same pid.
owner_start_time() {
  [ -r "/proc/$1/stat" ] || return 0
  sed 's/.*) //' "/proc/$1/stat" 2>/dev/null | awk '{ print $20 }'
}

cmd_create() {
  check_run "$1"
  local dir
  dir=$(state_dir "$1")
  [ ! -e "$dir" ] || die "run '$1' exists already"
  mkdir -p "$dir/hosts" "$dir/lans"
  echo 0 >"$dir/host_count"
  local sw
  sw=$(switch_ns "$1")
  ip netns add "$sw"
  ip -n "$sw" link set lo up
  # Bridge ports carry frames only; keep the switch itself off IPv6.
  ip netns exec "$sw" sysctl -q -w net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1 >/dev/null
  owner_start_time "$(run_owner "$1")" >"$dir/owner"
}

lan_prefix() {
  case "$1" in
    1) echo 192.0.2 ;;
    2) echo 198.51.100 ;;
    3) echo 203.0.113 ;;
    *) die "LAN number must be 1, 2 or 3" ;;
  esac
}

cmd_add_lan() {
  check_run "$1"
  lan_prefix "$2" >/dev/null
  local dir
  dir=$(state_dir "$1")
  [ -d "$dir" ] || die "no run '$1'"
  [ ! -e "$dir/lans/$2" ] || die "LAN $2 exists already"
  local sw
  sw=$(switch_ns "$1")
  # No IGMP/MLD snooping: every port sees all multicast, as on a plain switch.
  ip -n "$sw" link add "br$2" type bridge mcast_snooping 0 stp_state 0 forward_delay 0
  ip -n "$sw" link set "br$2" up
  echo 10 >"$dir/lans/$2"
}

link_local_ready() {
  local addr
  addr=$(ip -n "$1" -6 -o addr show dev "$2" scope link 2>/dev/null)
  [ -n "$addr" ] && [[ $addr != *tentative* ]]
}

attach() { # RUN HOST NS IFACE LAN HOSTINDEX
  local run=$1 host=$2 ns=$3 iface=$4 lan=$5 index=$6
  local dir sw prefix octet port
  dir=$(state_dir "$run")
  sw=$(switch_ns "$run")
  [ -e "$dir/lans/$lan" ] || die "no LAN $lan in run '$run'"
  prefix=$(lan_prefix "$lan")
  octet=$(cat "$dir/lans/$lan")
  [ "$octet" -lt 250 ] || die "LAN $lan is full"
  echo $((octet + 1)) >"$dir/lans/$lan"
  port="h${index}l${lan}"
  ip -n "$ns" link add "$iface" address "$(printf '02:53:%02x:%02x:%02x:%02x' "$lan" $((index >> 8)) $((index & 255)) "${iface#eth}")" \
    type veth peer name "$port" netns "$sw"
  ip -n "$sw" link set "$port" master "br$lan"
  ip -n "$sw" link set "$port" up
  ip -n "$ns" addr add "$prefix.$octet/24" dev "$iface"
  ip -n "$ns" link set "$iface" multicast on up
  echo "$iface $lan $prefix.$octet $port" >>"$(host_dir "$run" "$host")/ifaces"
}

cmd_add_host() {
  check_run "$1"
  check_host "$2"
  local run=$1 host=$2
  shift 2
  [ $# -ge 1 ] || die "add-host needs at least one LAN"
  local dir hdir ns index
  dir=$(state_dir "$run")
  [ -d "$dir" ] || die "no run '$run'"
  hdir=$(host_dir "$run" "$host")
  [ ! -e "$hdir" ] || die "host '$host' exists already"
  mkdir -p "$hdir/services"
  : >"$hdir/ifaces"
  index=$(($(cat "$dir/host_count") + 1))
  echo "$index" >"$dir/host_count"
  echo "$index" >"$hdir/index"
  ns=$(host_ns "$run" "$host")
  ip netns add "$ns"
  resolver_init "$run" "$host"
  ip -n "$ns" link set lo up
  # Link-local addresses must be usable at once: no duplicate address detection.
  ip netns exec "$ns" sysctl -q -w net.ipv6.conf.all.accept_dad=0 net.ipv6.conf.default.accept_dad=0 \
    net.ipv6.conf.all.dad_transmits=0 net.ipv6.conf.default.dad_transmits=0 >/dev/null
  local n=0 lan
  for lan in "$@"; do
    attach "$run" "$host" "$ns" "eth$n" "$lan" "$index"
    n=$((n + 1))
  done
  local i
  # Senders that pick no interface reach the first LAN.
  ip -n "$ns" route add 224.0.0.0/4 dev eth0
  for ((i = 0; i < n; i++)); do
    wait_for 100 link_local_ready "$ns" "eth$i" || die "no link-local address on eth$i of $host"
  done
}

cmd_recreate_iface() {
  require_host "$1" "$2"
  [ $# -ge 3 ] || die "recreate-iface RUN HOST IFACE [GAP_SECONDS]"
  local run=$1 host=$2 iface=$3 gap=${4:-1} hdir ns sw lan addr mac port
  hdir=$(host_dir "$run" "$host")
  ns=$(host_ns "$run" "$host")
  sw=$(switch_ns "$run")
  read -r _ lan addr _ < <(awk -v i="$iface" '$1 == i' "$hdir/ifaces") || die "no interface $iface on $host"
  mac=$(ip -n "$ns" -o link show dev "$iface" | sed -n 's:.*link/ether \([0-9a-f:]*\).*:\1:p')
  port="h$(cat "$hdir/index")l$lan"
  ip -n "$ns" link del "$iface" # takes the switch's end and the routes with it
  sleep "$gap"
  ip -n "$ns" link add "$iface" address "$mac" type veth peer name "$port" netns "$sw"
  ip -n "$sw" link set "$port" master "br$lan"
  ip -n "$sw" link set "$port" up
  ip -n "$ns" addr add "$addr/$([[ $addr == 169.254.* ]] && echo 16 || echo 24)" dev "$iface"
  ip -n "$ns" link set "$iface" multicast on up
  [ "$iface" != eth0 ] || ip -n "$ns" route replace 224.0.0.0/4 dev eth0
  wait_for 100 link_local_ready "$ns" "$iface" || die "no link-local address on $iface of $host"
}

cmd_netns() {
  require_host "$1" "$2"
  host_ns "$1" "$2"
}

cmd_ipv4() {
  require_host "$1" "$2"
  local iface=${3:-eth0}
  awk -v i="$iface" '$1 == i { print $3; found = 1 } END { exit !found }' "$(host_dir "$1" "$2")/ifaces" ||
    die "no interface $iface on $2"
}

cmd_ipv6ll() {
  require_host "$1" "$2"
  local iface=${3:-eth0}
  ip -n "$(host_ns "$1" "$2")" -6 -o addr show dev "$iface" scope link |
    awk '{ split($4, a, "/"); print a[1]; exit }'
}

cmd_set_ipv4() {
  require_host "$1" "$2"
  [ $# -eq 4 ] || die "set-ipv4 RUN HOST IFACE ADDR/LEN"
  local ns hdir
  ns=$(host_ns "$1" "$2")
  hdir=$(host_dir "$1" "$2")
  grep -q "^$3 " "$hdir/ifaces" || die "no interface $3 on $2"
  ip -n "$ns" -4 addr flush dev "$3"
  ip -n "$ns" addr add "$4" dev "$3"
  awk -v i="$3" -v a="${4%/*}" '$1 == i { $3 = a } { print }' "$hdir/ifaces" >"$hdir/ifaces.tmp"
  # Senders that pick no interface still reach the LAN.
  ip -n "$ns" route replace 224.0.0.0/4 dev "$3" 2>/dev/null || true
  mv "$hdir/ifaces.tmp" "$hdir/ifaces"
}

cmd_exec() {
  require_host "$1" "$2"
  local ns
  ns=$(host_ns "$1" "$2")
  shift 2
  exec ip netns exec "$ns" "$@"
}

resolver_file() { echo "$NETNS_ETC/$(host_ns "$1" "$2")/resolv.conf"; }

# Made with the namespace, before any program starts there; only where the
# machine has an /etc/resolv.conf for `ip netns exec` to mount it over.
resolver_init() {
  [ -e /etc/resolv.conf ] || return 0
  local file
  file=$(resolver_file "$1" "$2")
  mkdir -p "$(dirname "$file")"
  echo "# run $1, host $2: no name server (vlan.sh use-dns sets one)" >"$file"
}

cmd_use_dns() {
  [ $# -eq 3 ] || die "use-dns RUN HOST SERVER"
  require_host "$1" "$2"
  require_host "$1" "$3"
  [ -e /etc/resolv.conf ] || die "this machine has no /etc/resolv.conf for ip netns exec to mount $2's own over"
  local file server
  file=$(resolver_file "$1" "$2")
  server=$(cmd_ipv4 "$1" "$3")
  mkdir -p "$(dirname "$file")"
  # Rewritten in place: programs already running there see the change too.
  echo "nameserver $server" >"$file"
  [ "$(ip netns exec "$(host_ns "$1" "$2")" cat /etc/resolv.conf)" = "nameserver $server" ] ||
    die "ip netns exec does not show $file as /etc/resolv.conf"
  echo "$file"
}

dns_dir() { echo "$(host_dir "$1" "$2")/dns"; }

dns_pid() {
  local f
  f="$(dns_dir "$1" "$2")/named.pid"
  [ -s "$f" ] && kill -0 "$(cat "$f")" 2>/dev/null && cat "$f"
}

# A label in zone-file form: letters, digits, '-' and '_' as they are, every
# other byte as \DDD.
zone_label() {
  local LC_ALL=C
  local s=$1 out='' c i
  for ((i = 0; i < ${#s}; i++)); do
    c=${s:i:1}
    case "$c" in
      [A-Za-z0-9_-]) out+=$c ;;
      *) out+=$(printf '\\%03d' "'$c") ;;
    esac
  done
  printf '%s' "$out"
}

zone_string() {
  local s=$1
  s=${s//\\/\\\\}
  s=${s//\"/\\\"}
  printf '"%s"' "$s"
}

check_zone_name() { # a name inside the zone, e.g. printer or host.site
  [[ $1 =~ ^[A-Za-z0-9-]{1,63}(\.[A-Za-z0-9-]{1,63})*$ ]] ||
    die "bad name '$1' (labels of letters, digits and -, relative to the zone)"
}

dns_service_file() { # RUN HOST NAME TYPE
  echo "$(dns_dir "$1" "$2")/records/service-$(printf '%s|%s' "$3" "$4" | md5sum | cut -c1-16).rr"
}

# Writes the zone file out of the records with the next serial, checked.
write_zone() {
  local dir origin ttl serial f
  dir=$(dns_dir "$1" "$2")
  origin=$(cat "$dir/origin")
  ttl=$(cat "$dir/ttl")
  serial=$(($(cat "$dir/serial" 2>/dev/null || echo 0) + 1))
  {
    echo "\$ORIGIN $origin"
    echo "\$TTL $ttl"
    echo "@ SOA ns hostmaster $serial 60 60 600 $ttl"
    echo "@ NS ns"
    echo "ns A $(cmd_ipv4 "$1" "$2")"
    for f in "$dir"/records/*.rr; do
      [ ! -e "$f" ] || cat "$f"
    done
    # Service type enumeration (RFC 6763 section 9).
    for f in "$dir"/records/service-*.rr; do
      [ ! -e "$f" ] || sed -n 's/^; type //p' "$f"
    done | sort -u | sed 's/^/_services._dns-sd._udp PTR /'
  } >"$dir/zone.tmp"
  named-checkzone -q "$origin" "$dir/zone.tmp" ||
    die "the zone does not load: $(named-checkzone "$origin" "$dir/zone.tmp" 2>&1 | head -n 5)"
  mv "$dir/zone.tmp" "$dir/zone"
  echo "$serial" >"$dir/serial"
}

dns_loaded_since() { # LOG OFFSET ZONE SERIAL
  log_since "$1" "$2" | grep -qF "zone ${3%.}/IN: loaded serial $4"
}

# After a change of the records: with the server running, reloads the zone and
# waits until the server serves the new serial.
reload_zone() {
  local dir pid offset
  dir=$(dns_dir "$1" "$2")
  pid=$(dns_pid "$1" "$2") || return 0
  write_zone "$1" "$2"
  offset=$(stat -c %s "$dir/named.log")
  kill -HUP "$pid"
  wait_for 100 dns_loaded_since "$dir/named.log" "$offset" "$(cat "$dir/origin")" "$(cat "$dir/serial")" ||
    die "the DNS server on $2 did not load serial $(cat "$dir/serial"): $(tail -n 5 "$dir/named.log")"
}

cmd_dns_address() {
  [ $# -ge 4 ] || die "dns-address RUN HOST NAME ADDRESS..."
  require_host "$1" "$2"
  check_zone_name "$3"
  local run=$1 host=$2 name=$3 dir address
  shift 3
  dir=$(dns_dir "$run" "$host")
  mkdir -p "$dir/records"
  for address in "$@"; do
    if [[ $address =~ ^[0-9.]+$ ]]; then
      echo "$name A $address"
    elif [[ $address =~ ^[0-9A-Fa-f:.]+$ ]]; then
      echo "$name AAAA $address"
    else
      die "bad address '$address'"
    fi
  done >"$dir/records/address-$name.rr"
  reload_zone "$run" "$host"
}

cmd_dns_service() {
  [ $# -ge 6 ] || die "dns-service RUN HOST NAME TYPE PORT TARGET [TXT...]"
  require_host "$1" "$2"
  local run=$1 host=$2 name=$3 type=$4 port=$5 target=$6
  shift 6
  [ -n "$name" ] && [ "${#name}" -le 63 ] || die "bad instance name '$name' (1 to 63 bytes)"
  [[ $type =~ ^_[A-Za-z0-9-]+\._(tcp|udp)$ ]] || die "bad service type '$type'"
  [[ $port =~ ^[0-9]+$ ]] && [ "$port" -le 65535 ] || die "bad port '$port'"
  check_zone_name "$target"
  local file instance txt="" t
  file=$(dns_service_file "$run" "$host" "$name" "$type")
  mkdir -p "$(dirname "$file")"
  instance="$(zone_label "$name").$type"
  for t in "$@"; do
    txt+=" $(zone_string "$t")"
  done
  {
    echo "; type $type"
    echo "$type PTR $instance"
    echo "$instance SRV 0 0 $port $target"
    echo "$instance TXT${txt:- \"\"}"
  } >"$file"
  reload_zone "$run" "$host"
}

cmd_dns_services() {
  [ $# -eq 6 ] || die "dns-services RUN HOST PREFIX TYPE COUNT PER_HOST"
  require_host "$1" "$2"
  local run=$1 host=$2 prefix=$3 type=$4 count=$5 per=$6 dir label n k
  [[ $type =~ ^_[A-Za-z0-9-]+\._(tcp|udp)$ ]] || die "bad service type '$type'"
  [[ $count =~ ^[0-9]+$ && $per =~ ^[1-9][0-9]*$ ]] && [ "$count" -le 100000 ] || die "bad count '$count' or '$per'"
  dir=$(dns_dir "$run" "$host")
  mkdir -p "$dir/records"
  label=$(zone_label "$prefix")
  check_zone_name "$label-host1"
  {
    echo "; type $type"
    for ((n = 1; n <= count; n++)); do
      k=$(((n - 1) / per + 1))
      echo "$type PTR $label\\032$n.$type"
      echo "$label\\032$n.$type SRV 0 0 $((8000 + n % 50000)) $label-host$k"
      echo "$label\\032$n.$type TXT \"path=/$n\""
      ((n % per == 1 || per == 1)) && echo "$label-host$k A 198.$((18 + k / 65536)).$((k / 256 % 256)).$((k % 256))"
    done
  } >"$dir/records/service-bulk-$(printf '%s|%s' "$prefix" "$type" | md5sum | cut -c1-16).rr"
  reload_zone "$run" "$host"
}

cmd_dns_remove_service() {
  [ $# -eq 4 ] || die "dns-remove-service RUN HOST NAME TYPE"
  require_host "$1" "$2"
  local file
  file=$(dns_service_file "$@")
  [ -e "$file" ] || die "no service '$3' of type $4 in the zone of $2"
  rm -f "$file"
  reload_zone "$1" "$2"
}

# BIND 9.18 refuses more than 100 records of one name and type unless told
# otherwise (older versions know no such limit, nor the option).
max_records_option() {
  local probe
  probe=$(mktemp)
  echo 'options { max-records-per-type 0; };' >"$probe"
  ! named-checkconf "$probe" >/dev/null 2>&1 || echo "  max-records-per-type 0;"
  rm -f "$probe"
}

cmd_start_dns() {
  require_host "$1" "$2"
  local run=$1 host=$2 zone=example.test. ttl=10
  shift 2
  while [ $# -gt 0 ]; do
    case "$1" in
      --zone) zone=$2; shift ;;
      --ttl) ttl=$2; shift ;;
      *) die "start-dns: unknown option $1" ;;
    esac
    shift
  done
  zone=${zone%.}.
  [[ $zone =~ ^([A-Za-z0-9-]{1,63}\.)+$ ]] || die "bad zone '$zone'"
  [[ $ttl =~ ^[0-9]+$ ]] && [ "$ttl" -ge 1 ] && [ "$ttl" -le 86400 ] || die "bad TTL '$ttl' (1 to 86400 seconds)"
  ! dns_pid "$run" "$host" >/dev/null || die "a DNS server runs already on $host"
  local dir ns
  dir=$(dns_dir "$run" "$host")
  ns=$(host_ns "$run" "$host")
  mkdir -p "$dir/records"
  echo "$zone" >"$dir/origin"
  echo "$ttl" >"$dir/ttl"
  write_zone "$run" "$host"
  # Authoritative only: no recursion, no notifies, no control channel, no
  # file written outside the run's folder.
  cat >"$dir/named.conf" <<CONF
options {
  directory "$dir";
  pid-file none;
  lock-file none;
  session-keyfile "$dir/session.key";
  managed-keys-directory "$dir";
  listen-on { any; };
  listen-on-v6 { any; };
  recursion no;
  notify no;
$(max_records_option)
  dnssec-validation no;
  allow-query { any; };
};
controls { };
zone "$zone" { type primary; file "$dir/zone"; };
CONF
  setsid ip netns exec "$ns" named -g -n 1 -c "$dir/named.conf" </dev/null >"$dir/named.log" 2>&1 &
  echo $! >"$dir/named.pid"
  if ! wait_for 150 grep -q " running$" "$dir/named.log" ||
    ! dns_loaded_since "$dir/named.log" 0 "$zone" "$(cat "$dir/serial")"; then
    tail -n 20 "$dir/named.log" >&2
    die "the DNS server did not start on $host"
  fi
}

cmd_dns_zone() {
  require_host "$1" "$2"
  local file
  file="$(dns_dir "$1" "$2")/zone"
  [ -e "$file" ] || die "no DNS server was started on $2"
  cat "$file"
}

cmd_stop_dns() {
  require_host "$1" "$2"
  stop_pid "$(dns_dir "$1" "$2")/named.pid"
}

xml_escape() {
  local s=$1
  # Quoted replacements: bash 5.2 reads a bare & there as the matched text.
  s=${s//&/"&amp;"}
  s=${s//</"&lt;"}
  s=${s//>/"&gt;"}
  printf '%s' "$s"
}

service_file() { # HOSTDIR NAME TYPE -> path of the service's file
  local slug
  slug=$(printf '%s|%s' "$2" "$3" | md5sum | cut -c1-16)
  echo "$1/services/$slug.service"
}

daemon_pid() {
  local f
  f="$(host_dir "$1" "$2")/avahi.pid"
  [ -s "$f" ] && kill -0 "$(cat "$f")" 2>/dev/null && cat "$f"
}

log_size() { stat -c %s "$(host_dir "$1" "$2")/avahi.log"; }

log_since() { # LOGFILE OFFSET
  tail -c +$(($2 + 1)) "$1"
}

established_since() { # LOGFILE OFFSET NAME
  log_since "$1" "$2" | grep -F "Service \"$3\" (" | grep -q "successfully established"
}

# Waits until the daemon's log, from byte OFFSET on, says that NAME is established.
wait_established() { # RUN HOST NAME OFFSET
  wait_for 100 established_since "$(host_dir "$1" "$2")/avahi.log" "$4" "$3"
}

cmd_add_service() {
  require_host "$1" "$2"
  [ $# -ge 5 ] || die "add-service RUN HOST NAME TYPE PORT [TXT...]"
  local run=$1 host=$2 name=$3 type=$4 port=$5
  shift 5
  [[ $type =~ ^_[A-Za-z0-9-]+\._(tcp|udp)(,_[A-Za-z0-9-]+\._sub\._[A-Za-z0-9-]+\._(tcp|udp))*$ ]] || die "bad service type '$type'"
  [[ $port =~ ^[0-9]+$ ]] && [ "$port" -le 65535 ] || die "bad port '$port'"
  local hdir file tmp
  hdir=$(host_dir "$run" "$host")
  file=$(service_file "$hdir" "$name" "$type")
  tmp="$file.tmp"
  {
    echo '<?xml version="1.0" standalone="no"?>'
    echo '<!DOCTYPE service-group SYSTEM "avahi-service.dtd">'
    echo '<service-group>'
    echo "  <name>$(xml_escape "$name")</name>"
    echo '  <service protocol="any">'
    local subtypes=() subtype
    IFS=, read -r -a subtypes <<<"$type"
    echo "    <type>$(xml_escape "${subtypes[0]}")</type>"
    for subtype in "${subtypes[@]:1}"; do
      echo "    <subtype>$(xml_escape "$subtype")</subtype>"
    done
    echo "    <port>$port</port>"
    local txt
    for txt in "$@"; do
      if [[ $txt == hex:* ]]; then
        echo "    <txt-record value-format=\"binary-hex\">$(xml_escape "${txt#hex:}")</txt-record>"
      else
        echo "    <txt-record>$(xml_escape "$txt")</txt-record>"
      fi
    done
    echo '  </service>'
    echo '</service-group>'
  } >"$tmp"
  mv "$tmp" "$file"
  local pid
  if pid=$(daemon_pid "$run" "$host"); then
    local offset
    offset=$(log_size "$run" "$host")
    kill -HUP "$pid"
    wait_established "$run" "$host" "$name" "$offset" || die "service '$name' was not established on $host"
  fi
}

cmd_add_services() {
  require_host "$1" "$2"
  [ $# -eq 6 ] || die "add-services RUN HOST PREFIX TYPE PORT COUNT"
  local run=$1 host=$2 hdir pid offset
  hdir=$(host_dir "$run" "$host")
  [[ $4 =~ ^_[A-Za-z0-9-]+\._(tcp|udp)$ ]] || die "bad service type '$4'"
  [[ $5 =~ ^[0-9]+$ ]] && [ "$5" -le 65535 ] || die "bad port '$5'"
  [[ $6 =~ ^[0-9]+$ ]] && [ "$6" -le 5000 ] || die "bad count '$6' (at most 5000)"
  offset=$(log_size "$run" "$host" 2>/dev/null || echo 0)
  # One process writes them all, named as add-service names each file.
  "$PYTHON" - "$hdir/services" "$3" "$4" "$5" "$6" <<'PY'
import hashlib, os, sys
from xml.sax.saxutils import escape
folder, prefix, stype, port, count = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4], int(sys.argv[5])
for n in range(1, count + 1):
    name = "%s %d" % (prefix, n)
    slug = hashlib.md5(("%s|%s" % (name, stype)).encode()).hexdigest()[:16]
    path = os.path.join(folder, slug + ".service")
    with open(path + ".tmp", "w") as f:
        f.write('<?xml version="1.0" standalone="no"?>\n<!DOCTYPE service-group SYSTEM "avahi-service.dtd">\n'
                "<service-group>\n  <name>%s</name>\n  <service protocol=\"any\">\n    <type>%s</type>\n"
                "    <port>%s</port>\n  </service>\n</service-group>\n" % (escape(name), stype, port))
    os.rename(path + ".tmp", path)
PY
  if pid=$(daemon_pid "$run" "$host"); then
    kill -HUP "$pid"
    wait_for $((100 + $6)) established_count "$hdir/avahi.log" "$offset" "$6" ||
      die "not every service was established on $host"
  fi
}

established_count() { # LOGFILE OFFSET AT_LEAST
  [ "$(log_since "$1" "$2" | grep -c 'successfully established')" -ge "$3" ]
}

cmd_remove_service() {
  require_host "$1" "$2"
  [ $# -eq 4 ] || die "remove-service RUN HOST NAME TYPE"
  local hdir file pid
  hdir=$(host_dir "$1" "$2")
  file=$(service_file "$hdir" "$3" "$4")
  [ -e "$file" ] || die "no service '$3' of type $4 on $2"
  rm -f "$file"
  if pid=$(daemon_pid "$1" "$2"); then
    kill -HUP "$pid"
  fi
}

cmd_start_avahi() {
  require_host "$1" "$2"
  local run=$1 host=$2 dbus=no device=$2 interfaces= wait=yes
  shift 2
  while [ $# -gt 0 ]; do
    case "$1" in
      --dbus) dbus=yes ;;
      --no-wait) wait=no ;;
      --name) device=$2; shift ;;
      --interfaces) interfaces=$2; shift ;;
      *) die "start-avahi: unknown option $1" ;;
    esac
    shift
  done
  local hdir ns
  hdir=$(host_dir "$run" "$host")
  ns=$(host_ns "$run" "$host")
  ! daemon_pid "$run" "$host" >/dev/null || die "avahi-daemon already runs on $host"
  [ -n "$interfaces" ] || interfaces=$(awk '{ printf "%s%s", sep, $1; sep = "," }' "$hdir/ifaces")
  cat >"$hdir/avahi.conf" <<EOF
[server]
host-name=$device
domain-name=local
use-ipv4=yes
use-ipv6=yes
allow-interfaces=$interfaces
enable-dbus=$dbus
ratelimit-interval-usec=1000000
ratelimit-burst=1000
[wide-area]
enable-wide-area=no
[publish]
publish-hinfo=no
publish-workstation=no
[reflector]
enable-reflector=no
[rlimits]
EOF
  rm -f "$hdir/dbus.pid"
  # A private /run (pid file, sockets, bus) and services folder per daemon.
  local inner='mount -t tmpfs none /run && mkdir -p /run/avahi-daemon /run/dbus &&
    mount --bind "$0/services" /etc/avahi/services || exit 1
    if [ "$1" = yes ]; then
      dbus-daemon --system --nofork --nopidfile >"$0/dbus.log" 2>&1 &
      echo $! >"$0/dbus.pid"
      i=0
      while [ ! -S /run/dbus/system_bus_socket ] && [ $i -lt 100 ]; do sleep 0.1; i=$((i + 1)); done
    fi
    exec avahi-daemon --no-drop-root --no-chroot --no-rlimits --no-proc-title -f "$0/avahi.conf"'
  : >"$hdir/avahi.log"
  setsid ip netns exec "$ns" unshare -m --propagation private sh -c "$inner" "$hdir" "$dbus" \
    </dev/null >"$hdir/avahi.log" 2>&1 &
  echo $! >"$hdir/avahi.pid"
  [ "$wait" = no ] || cmd_wait_avahi "$run" "$host"
}

cmd_wait_avahi() {
  require_host "$1" "$2"
  local run=$1 host=$2 hdir
  hdir=$(host_dir "$run" "$host")
  [ -e "$hdir/avahi.pid" ] || die "avahi-daemon was not started on $host"
  if ! wait_for 200 grep -q "Server startup complete" "$hdir/avahi.log"; then
    cat "$hdir/avahi.log" >&2
    die "avahi-daemon did not start on $host"
  fi
  # Many services: one count of the log instead of a look per name.
  local count
  count=$(find "$hdir/services" -name '*.service' | wc -l)
  [ "$count" -lt 20 ] || ! wait_for $((100 + count)) established_count "$hdir/avahi.log" 0 "$count" || return 0
  local f name
  for f in "$hdir"/services/*.service; do
    [ -e "$f" ] || continue
    name=$(sed -n 's:.*<name>\(.*\)</name>.*:\1:p' "$f" | sed 's/&lt;/</g; s/&gt;/>/g; s/&amp;/\&/g')
    wait_established "$run" "$host" "$name" 0 || die "service '$name' was not established on $host"
  done
}

stop_pid() { # PIDFILE: SIGTERM, wait up to 5 s, then SIGKILL
  local pid
  [ -s "$1" ] || return 0
  pid=$(cat "$1")
  rm -f "$1"
  kill -TERM "$pid" 2>/dev/null || return 0
  local i
  for ((i = 0; i < 50; i++)); do
    kill -0 "$pid" 2>/dev/null || return 0
    sleep 0.1
  done
  kill -KILL "$pid" 2>/dev/null || true
}

cmd_stop_avahi() {
  require_host "$1" "$2"
  local hdir
  hdir=$(host_dir "$1" "$2")
  stop_pid "$hdir/avahi.pid"
  stop_pid "$hdir/dbus.pid"
}

cmd_kill_avahi() {
  require_host "$1" "$2"
  local pid
  pid=$(daemon_pid "$1" "$2") || die "no avahi-daemon runs on $2"
  rm -f "$(host_dir "$1" "$2")/avahi.pid"
  kill -KILL "$pid"
  while kill -0 "$pid" 2>/dev/null; do sleep 0.05; done
}

cmd_exec_avahi() {
  require_host "$1" "$2"
  [ $# -ge 3 ] || die "exec-avahi RUN HOST CMD..."
  local hdir pid
  hdir=$(host_dir "$1" "$2")
  pid=$(daemon_pid "$1" "$2") || die "no avahi-daemon runs on $2"
  [ -s "$hdir/dbus.pid" ] || die "the daemon on $2 was started without --dbus"
  shift 2
  exec nsenter -t "$pid" -m -n "$@"
}

zeroconf_pid() {
  local f
  f="$(host_dir "$1" "$2")/zeroconf.pid"
  [ -s "$f" ] && kill -0 "$(cat "$f")" 2>/dev/null && cat "$f"
}

cmd_start_zeroconf() {
  require_host "$1" "$2"
  local run=$1 host=$2 device=$2 wait=yes
  shift 2
  while [ $# -gt 0 ]; do
    case "$1" in
      --no-wait) wait=no ;;
      --name) device=$2; shift ;;
      *) die "start-zeroconf: unknown option $1" ;;
    esac
    shift
  done
  local hdir ns addresses=() iface
  hdir=$(host_dir "$run" "$host")
  ns=$(host_ns "$run" "$host")
  ! zeroconf_pid "$run" "$host" >/dev/null || die "a zeroconf responder already runs on $host"
  for iface in $(awk '{ print $1 }' "$hdir/ifaces"); do
    addresses+=("$(cmd_ipv4 "$run" "$host" "$iface")" "$(cmd_ipv6ll "$run" "$host" "$iface")")
  done
  setsid ip netns exec "$ns" "$PYTHON" "$BENCH_DIR/zeroconf_responder.py" "$hdir/services" "$device" \
    "${addresses[@]}" </dev/null >"$hdir/zeroconf.log" 2>&1 &
  echo $! >"$hdir/zeroconf.pid"
  [ "$wait" = no ] || cmd_wait_zeroconf "$run" "$host"
}

cmd_wait_zeroconf() {
  require_host "$1" "$2"
  local hdir
  hdir=$(host_dir "$1" "$2")
  if ! wait_for 600 grep -q '^registered' "$hdir/zeroconf.log"; then
    cat "$hdir/zeroconf.log" >&2
    die "the zeroconf responder did not register its services on $2"
  fi
}

cmd_stop_zeroconf() {
  require_host "$1" "$2"
  stop_pid "$(host_dir "$1" "$2")/zeroconf.pid"
}

cmd_browse() {
  require_host "$1" "$2"
  [ $# -eq 3 ] || die "browse RUN HOST TYPE"
  local hdir pid
  hdir=$(host_dir "$1" "$2")
  pid=$(daemon_pid "$1" "$2") || die "no avahi-daemon runs on $2"
  [ -s "$hdir/dbus.pid" ] || die "the daemon on $2 was started without --dbus"
  timeout 20 nsenter -t "$pid" -m -n avahi-browse -rpt "$3"
}

capture_base() { echo "$(host_dir "$1" "$2")/capture-$3"; }

cmd_capture_start() {
  require_host "$1" "$2"
  [ $# -eq 3 ] || [ $# -eq 4 ] || die "capture-start RUN HOST IFACE [EXPR]"
  local base ns filter="udp port 5353"
  base=$(capture_base "$1" "$2" "$3")
  [ $# -eq 3 ] || filter="$filter and ($4)"
  ns=$(host_ns "$1" "$2")
  [ ! -s "$base.pid" ] || die "a capture runs already on $2 $3"
  rm -f "$base.pcap"
  setsid ip netns exec "$ns" tcpdump -i "$3" -n -U -w "$base.pcap" "$filter" \
    </dev/null >"$base.log" 2>&1 &
  echo $! >"$base.pid"
  wait_for 100 grep -q "listening on" "$base.log" || die "tcpdump did not start on $2 $3"
}

cmd_capture_stop() {
  require_host "$1" "$2"
  local base pid i
  base=$(capture_base "$@")
  [ -s "$base.pid" ] || return 0
  pid=$(cat "$base.pid")
  rm -f "$base.pid"
  # SIGINT lets tcpdump flush the file.
  kill -INT "$pid" 2>/dev/null || return 0
  for ((i = 0; i < 50; i++)); do
    kill -0 "$pid" 2>/dev/null || return 0
    sleep 0.1
  done
  kill -KILL "$pid" 2>/dev/null || true
}

cmd_capture_count() {
  require_host "$1" "$2"
  [ $# -eq 4 ] || { [ $# -eq 5 ] && [ "$5" = queries ]; } || die "capture-count RUN HOST IFACE SRC [queries]"
  local base filter="src host $4 and udp dst port 5353"
  base=$(capture_base "$1" "$2" "$3")
  # The flags byte after the UDP header (no IPv6 extension headers on this LAN).
  if [ $# -eq 5 ]; then
    case "$4" in
      *:*) filter="$filter and ip6[50] & 0x80 = 0" ;;
      *) filter="$filter and udp[10] & 0x80 = 0" ;;
    esac
  fi
  [ -e "$base.pcap" ] || die "no capture on $2 $3"
  # The file may still grow; a cut-off last packet is not an error here.
  { tcpdump -r "$base.pcap" -n -q "$filter" 2>/dev/null || true; } |
    awk '
      / UDP, length [0-9]+/ {
        packets++
        if (match($0, /UDP, length [0-9]+/)) bytes += substr($0, RSTART + 12, RLENGTH - 12)
      }
      END { printf "%d %d\n", packets, bytes }'
}

cmd_capture_first_answer() {
  require_host "$1" "$2"
  [ $# -eq 4 ] || die "capture-first-answer RUN HOST IFACE TEXT"
  local base
  base=$(capture_base "$1" "$2" "$3")
  [ -e "$base.pcap" ] || die "no capture on $2 $3"
  # tcpdump marks an authoritative response with "*" after the ID.
  { tcpdump -r "$base.pcap" -n -tt 2>/dev/null || true; } |
    awk -v text="$4" '/ [0-9]+\*-? / && index($0, text) { printf "%.0f\n", $1 * 1000; found = 1; exit }
      END { if (!found) print -1 }'
}

# The processes inside a namespace, except the run's owner: a test process may
# still have its main thread inside one of its namespaces.
namespace_pids() { # NS RUN
  local owner
  owner=$(run_owner "$2")
  ip netns pids "$1" 2>/dev/null | grep -vx -e "$owner" -e "$$" || true
}

cmd_destroy() {
  check_run "$1"
  local run=$1 dir ns pids namespaces i
  dir=$(state_dir "$run")
  namespaces=$(ip netns list | awk '{ print $1 }' | grep -E "^$run-" || true)
  for ns in $namespaces; do
    pids=$(namespace_pids "$ns" "$run")
    [ -z "$pids" ] || kill -TERM $pids 2>/dev/null || true
  done
  for ns in $namespaces; do
    for ((i = 0; i < 30; i++)); do
      [ -z "$(namespace_pids "$ns" "$run")" ] && break
      sleep 0.1
    done
    pids=$(namespace_pids "$ns" "$run")
    [ -z "$pids" ] || kill -KILL $pids 2>/dev/null || true
    ip netns delete "$ns" 2>/dev/null || true
  done
  # $NETNS_ETC itself stays: another run may be adding its files there.
  rm -rf "$dir" "$NETNS_ETC/$run"-*
}

run_owner_alive() {
  local now recorded
  now=$(owner_start_time "$(run_owner "$1")")
  [ -n "$now" ] || return 1
  recorded=$(cat "$(state_dir "$1")/owner" 2>/dev/null || true)
  [ -z "$recorded" ] || [ "$recorded" = "$now" ]
}

cmd_cleanup_stale() {
  local run
  for run in $( (ip netns list | awk '{ print $1 }' | sed -n -E 's/^(sv[0-9]+(x[0-9]+)?)-.*/\1/p'
    [ -d "$STATE_ROOT" ] && ls "$STATE_ROOT"
    [ -d "$NETNS_ETC" ] && ls "$NETNS_ETC" | sed -n -E 's/^(sv[0-9]+(x[0-9]+)?)-.*/\1/p') | sort -u); do
    [[ $run =~ $RUN_PATTERN ]] || continue
    run_owner_alive "$run" || cmd_destroy "$run"
  done
}

[ $# -ge 1 ] || die "usage: vlan.sh COMMAND ARGS... (see the head of this script)"
[ "$(id -u)" -eq 0 ] || die "needs root for network namespaces; run as root or with sudo"
command=$1
shift
case "$command" in
  create) cmd_create "$@" ;;
  add-lan) cmd_add_lan "$@" ;;
  add-host) cmd_add_host "$@" ;;
  netns) cmd_netns "$@" ;;
  ipv4) cmd_ipv4 "$@" ;;
  ipv6ll) cmd_ipv6ll "$@" ;;
  exec) cmd_exec "$@" ;;
  set-ipv4) cmd_set_ipv4 "$@" ;;
  recreate-iface) cmd_recreate_iface "$@" ;;
  start-avahi) cmd_start_avahi "$@" ;;
  wait-avahi) cmd_wait_avahi "$@" ;;
  add-service) cmd_add_service "$@" ;;
  remove-service) cmd_remove_service "$@" ;;
  stop-avahi) cmd_stop_avahi "$@" ;;
  kill-avahi) cmd_kill_avahi "$@" ;;
  browse) cmd_browse "$@" ;;
  exec-avahi) cmd_exec_avahi "$@" ;;
  add-services) cmd_add_services "$@" ;;
  start-zeroconf) cmd_start_zeroconf "$@" ;;
  wait-zeroconf) cmd_wait_zeroconf "$@" ;;
  stop-zeroconf) cmd_stop_zeroconf "$@" ;;
  capture-start) cmd_capture_start "$@" ;;
  capture-stop) cmd_capture_stop "$@" ;;
  capture-count) cmd_capture_count "$@" ;;
  capture-first-answer) cmd_capture_first_answer "$@" ;;
  use-dns) cmd_use_dns "$@" ;;
  dns-address) cmd_dns_address "$@" ;;
  dns-service) cmd_dns_service "$@" ;;
  dns-remove-service) cmd_dns_remove_service "$@" ;;
  dns-services) cmd_dns_services "$@" ;;
  start-dns) cmd_start_dns "$@" ;;
  dns-zone) cmd_dns_zone "$@" ;;
  stop-dns) cmd_stop_dns "$@" ;;
  destroy) cmd_destroy "$@" ;;
  cleanup-stale) cmd_cleanup_stale ;;
  *) die "unknown command '$command'" ;;
esac
