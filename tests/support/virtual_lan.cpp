#include "virtual_lan.h"

#include "netns_scope.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <thread>

namespace sorvalen::test {
namespace {

std::string new_run_name() {
  static std::atomic<unsigned> counter{0};
  return "sv" + std::to_string(getpid()) + "x" + std::to_string(++counter);
}

std::vector<std::string> script_command(std::vector<std::string> args) {
  args.insert(args.begin(), {"bash", SORVALEN_VLAN_SCRIPT});
  return args;
}

int open_own_netns() {
  const int fd = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    throw std::runtime_error(std::string("cannot open own network namespace: ") + std::strerror(errno));
  return fd;
}

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
    text.pop_back();
  return text;
}

}  // namespace

VirtualLan::VirtualLan() : run_(new_run_name()), home_netns_(open_own_netns()), home_id_(current_netns_id()) {
  try {
    // Leftovers of runs whose process died (a crash, a killed test) go first.
    run_from_home(script_command({"cleanup-stale"}));
    script({"create", run_});
  } catch (...) {
    ::close(home_netns_);
    throw;
  }
}

VirtualLan::~VirtualLan() {
  try {
    run_from_home(script_command({"destroy", run_}));
  } catch (...) {
    // Nothing more to do here; the next run's stale cleanup removes what is left.
  }
  ::close(home_netns_);
}

CommandResult VirtualLan::run_from_home(const std::vector<std::string>& argv, int timeout_seconds) const {
  if (current_netns_id() == home_id_)
    return run_command(argv, timeout_seconds);
  // Called from inside a NetnsScope: a helper thread goes back home first, so
  // the script and its children never run inside the LAN they manage.
  CommandResult result;
  std::exception_ptr error;
  std::thread([&] {
    try {
      if (setns(home_netns_, CLONE_NEWNET) != 0)
        throw std::runtime_error(std::string("cannot return to own network namespace: ") +
                                 std::strerror(errno));
      result = run_command(argv, timeout_seconds);
    } catch (...) {
      error = std::current_exception();
    }
  }).join();
  if (error)
    std::rethrow_exception(error);
  return result;
}

std::string VirtualLan::script(std::vector<std::string> args) const {
  const std::string command = args.front();
  args.insert(args.begin() + 1, run_);
  const CommandResult result = run_from_home(script_command(std::move(args)));
  if (!result.ok())
    throw std::runtime_error("vlan.sh " + command + " failed: " + trimmed(result.err));
  return trimmed(result.out);
}

int VirtualLan::add_lan() {
  const int lan = lan_count_ + 1;
  script({"add-lan", std::to_string(lan)});
  lan_count_ = lan;
  return lan;
}

void VirtualLan::add_host(const std::string& host, const std::vector<int>& lans) {
  std::vector<std::string> args = {"add-host", host};
  for (int lan : lans)
    args.push_back(std::to_string(lan));
  script(args);
}

std::string VirtualLan::netns(const std::string& host) const {
  return script({"netns", host});
}

std::string VirtualLan::host_ipv4(const std::string& host, const std::string& iface) const {
  return script({"ipv4", host, iface});
}

std::string VirtualLan::host_ipv6_link_local(const std::string& host, const std::string& iface) const {
  return script({"ipv6ll", host, iface});
}

void VirtualLan::start_avahi(const std::string& host, const std::vector<ServiceSpec>& services,
                             const AvahiOptions& options) {
  for (const ServiceSpec& service : services)
    add_service(host, service);
  std::vector<std::string> args = {"start-avahi", host};
  if (options.dbus)
    args.push_back("--dbus");
  if (!options.host_name.empty())
    args.insert(args.end(), {"--name", options.host_name});
  if (!options.interfaces.empty())
    args.insert(args.end(), {"--interfaces", options.interfaces});
  script(args);
}

void VirtualLan::add_service(const std::string& host, const ServiceSpec& service) {
  std::vector<std::string> args = {"add-service", host, service.name, service.type,
                                   std::to_string(service.port)};
  args.insert(args.end(), service.txt.begin(), service.txt.end());
  script(args);
}

void VirtualLan::add_services(const std::string& host, const std::string& prefix, const std::string& type,
                              std::uint16_t port, int count) {
  script({"add-services", host, prefix, type, std::to_string(port), std::to_string(count)});
}

void VirtualLan::remove_service(const std::string& host, const std::string& name, const std::string& type) {
  script({"remove-service", host, name, type});
}

void VirtualLan::stop_avahi(const std::string& host) {
  script({"stop-avahi", host});
}

void VirtualLan::start_dns(const std::string& host, const std::string& zone, int ttl_seconds) {
  script({"start-dns", host, "--zone", zone, "--ttl", std::to_string(ttl_seconds)});
}

void VirtualLan::dns_address(const std::string& host, const std::string& name,
                             const std::vector<std::string>& addresses) {
  std::vector<std::string> args = {"dns-address", host, name};
  args.insert(args.end(), addresses.begin(), addresses.end());
  script(args);
}

void VirtualLan::dns_service(const std::string& host, const ServiceSpec& service, const std::string& target) {
  std::vector<std::string> args = {
      "dns-service", host, service.name, service.type, std::to_string(service.port), target};
  args.insert(args.end(), service.txt.begin(), service.txt.end());
  script(args);
}

void VirtualLan::dns_remove_service(const std::string& host, const std::string& name,
                                    const std::string& type) {
  script({"dns-remove-service", host, name, type});
}

std::string VirtualLan::use_dns(const std::string& host, const std::string& server) {
  return script({"use-dns", host, server});
}

std::string VirtualLan::browse(const std::string& host, const std::string& type) const {
  return script({"browse", host, type});
}

CommandResult VirtualLan::exec(const std::string& host, const std::vector<std::string>& argv,
                               int timeout_seconds) const {
  std::vector<std::string> args = {"ip", "netns", "exec", netns(host)};
  args.insert(args.end(), argv.begin(), argv.end());
  return run_from_home(args, timeout_seconds);
}

}  // namespace sorvalen::test
