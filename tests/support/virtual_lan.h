#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "avahi_browse_output.h"
#include "command.h"

namespace sorvalen::test {

// One DNS-SD service that an avahi-daemon announces.
struct ServiceSpec {
  std::string name;  // instance name, e.g. "Living Room TV"
  std::string type;  // e.g. "_http._tcp"
  std::uint16_t port = 0;
  std::vector<std::string> txt;  // "key=value" strings
};

struct AvahiOptions {
  bool dbus = false;       // a private system bus, so that browse() works on this host
  std::string host_name;   // the announced host name; the host's name when empty
  std::string interfaces;  // comma-separated; every interface of the host when empty
};

// A set of virtual LANs on this machine for one test: each LAN is a bridge in
// a private switch namespace, each host a network namespace whose eth0, eth1...
// are joined to the LANs given to add_host, in that order.  LAN 1 uses
// 192.0.2.0/24, LAN 2 198.51.100.0/24, LAN 3 203.0.113.0/24 (hosts from .10
// on); every interface also has an IPv6 link-local address that is usable at
// once.  Multicast (224.0.0.251, ff02::fb) flows across each LAN.
//
// Everything is done by scripts/vlan.sh; this class only names the run and
// passes the calls on.  Failures throw std::runtime_error with the script's
// message.  The destructor kills every process of the run and deletes its
// namespaces.  Its methods may be called from inside a NetnsScope.  Needs root (see SV_REQUIRE_VIRTUAL_LAN).
class VirtualLan {
 public:
  VirtualLan();
  ~VirtualLan();

  VirtualLan(const VirtualLan&) = delete;
  VirtualLan& operator=(const VirtualLan&) = delete;

  // Adds the next LAN (1, 2, 3) and returns its number.
  int add_lan();
  void add_host(const std::string& host, const std::vector<int>& lans);

  // The host's namespace, for NetnsScope or `ip netns exec`.
  std::string netns(const std::string& host) const;
  std::string host_ipv4(const std::string& host, const std::string& iface = "eth0") const;
  std::string host_ipv6_link_local(const std::string& host, const std::string& iface = "eth0") const;

  // Starts avahi-daemon on the host with these services (plus those added
  // before) and returns once they are all announced.
  void start_avahi(const std::string& host, const std::vector<ServiceSpec>& services = {},
                   const AvahiOptions& options = {});
  // Publishes one more service; with the daemon running, returns once it is announced.
  void add_service(const std::string& host, const ServiceSpec& service);
  // Publishes `count` services "PREFIX 1" ... "PREFIX count" of one type and
  // port at once; with the daemon running, returns once they are announced.
  void add_services(const std::string& host, const std::string& prefix, const std::string& type,
                    std::uint16_t port, int count);
  // Withdraws a service; the daemon sends goodbye packets for it.
  void remove_service(const std::string& host, const std::string& name, const std::string& type);
  void stop_avahi(const std::string& host);

  // A DNS server (BIND 9) on the host, authoritative for `zone`, every record
  // with `ttl_seconds`; returns once it serves the records given before.  A
  // change of the records while it runs reloads the zone and returns once the
  // server serves the change.
  void start_dns(const std::string& host, const std::string& zone = "example.test.", int ttl_seconds = 10);
  // A and AAAA records of `name` (relative to the zone, e.g. "printer").
  void dns_address(const std::string& host, const std::string& name,
                   const std::vector<std::string>& addresses);
  // PTR, SRV (to `target`, relative to the zone) and TXT records of a service,
  // replacing those of a service of the same name and type.
  void dns_service(const std::string& host, const ServiceSpec& service, const std::string& target);
  void dns_remove_service(const std::string& host, const std::string& name, const std::string& type);
  // Points the host's resolver file at the DNS server on `server` (its only
  // name server) and returns the file's path: `ip netns exec` (so exec())
  // shows it as /etc/resolv.conf; a thread inside a NetnsScope needs a
  // ResolverScope for that.
  std::string use_dns(const std::string& host, const std::string& server);

  // `avahi-browse -rpt TYPE` on a host whose daemon was started with dbus.
  std::string browse(const std::string& host, const std::string& type) const;

  // Any other scripts/vlan.sh command of this run, e.g. {"set-ipv4", HOST, IFACE, ADDR/LEN};
  // returns its output.
  std::string command(std::vector<std::string> args) const { return script(std::move(args)); }

  // Runs a program inside the host's namespace.
  CommandResult exec(const std::string& host, const std::vector<std::string>& argv,
                     int timeout_seconds = 60) const;

  const std::string& run_name() const { return run_; }

 private:
  std::string script(std::vector<std::string> args) const;  // stdout, trimmed; throws on failure
  CommandResult run_from_home(const std::vector<std::string>& argv, int timeout_seconds = 120) const;

  std::string run_;
  int home_netns_ = -1;  // where the LAN was made; every command runs from there
  unsigned long home_id_ = 0;
  int lan_count_ = 0;
};

}  // namespace sorvalen::test
