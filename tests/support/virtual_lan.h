#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "avahi_browse_output.h"
#include "command.h"

namespace sorvalen::test {

// One DNS-SD service that an avahi-daemon announces.
struct AnnouncedService {
  std::string name;  // instance name, e.g. "Living Room TV"
  std::string type;  // e.g. "_http._tcp"
  std::uint16_t port = 0;
  std::vector<std::string> txt;  // "key=value" strings
};

struct AvahiOptions {
  bool dbus = false;  // a private system bus, so that browse() works on this host
};

// Virtual LANs on this machine for one test, made by scripts/vlan.sh (which
// tells what each call does): LAN n is a bridge, a host a network namespace
// whose eth0, eth1... join the LANs given to add_host.  Calls work from inside
// a NetnsScope too and throw std::runtime_error on failure; the destructor
// removes everything of the run.  Needs root (see SV_REQUIRE_VIRTUAL_LAN).
// The avahi-daemon calls return once the daemon has announced or withdrawn
// what they change.
class VirtualLan {
 public:
  VirtualLan();
  ~VirtualLan();
  VirtualLan(const VirtualLan&) = delete;
  VirtualLan& operator=(const VirtualLan&) = delete;

  int add_lan() {  // returns its number
    script({"add-lan", std::to_string(lan_count_ + 1)});
    return ++lan_count_;
  }
  void add_host(const std::string& host, const std::vector<int>& lans) {
    std::vector<std::string> args = {"add-host", host};
    for (int lan : lans)
      args.push_back(std::to_string(lan));
    script(args);
  }
  // For NetnsScope or `ip netns exec`.
  std::string netns(const std::string& host) const { return script({"netns", host}); }
  std::string host_ipv4(const std::string& host) const { return script({"ipv4", host}); }
  std::string host_ipv6_link_local(const std::string& host) const { return script({"ipv6ll", host}); }

  void start_avahi(const std::string& host, const std::vector<AnnouncedService>& services = {},
                   const AvahiOptions& options = {}) {
    for (const AnnouncedService& service : services)
      add_service(host, service);
    script(options.dbus ? std::vector<std::string>{"start-avahi", host, "--dbus"}
                        : std::vector<std::string>{"start-avahi", host});
  }
  void add_service(const std::string& host, const AnnouncedService& s) {
    std::vector<std::string> args = {"add-service", host, s.name, s.type, std::to_string(s.port)};
    args.insert(args.end(), s.txt.begin(), s.txt.end());
    script(args);
  }
  void remove_service(const std::string& host, const std::string& name, const std::string& type) {
    script({"remove-service", host, name, type});
  }
  void stop_avahi(const std::string& host) { script({"stop-avahi", host}); }
  // `avahi-browse -rpt TYPE` on a host whose daemon has dbus.
  std::string browse(const std::string& host, const std::string& type) const {
    return script({"browse", host, type});
  }

  // Any other vlan.sh command of this run, e.g. {"set-ipv4", HOST, IFACE, ADDR/LEN}; returns its output.
  std::string command(std::vector<std::string> args) const { return script(std::move(args)); }
  // Runs a program inside the host's namespace.
  CommandResult exec(const std::string& host, const std::vector<std::string>& argv,
                     int timeout_seconds = 60) const;

 private:
  std::string script(std::vector<std::string> args) const;  // stdout, trimmed; throws on failure
  CommandResult run_from_home(const std::vector<std::string>& argv, int timeout_seconds = 120) const;

  std::string run_;
  int home_netns_ = -1;  // where the LAN was made; every command runs from there
  unsigned long home_id_ = 0;
  int lan_count_ = 0;
};

}  // namespace sorvalen::test
