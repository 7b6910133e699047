#include "virtual_lan.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "netns_scope.h"

namespace sorvalen::test {

VirtualLan::VirtualLan()
    : home_netns_(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)), home_id_(current_netns_id()) {
  static std::atomic<unsigned> counter{0};
  run_ = "sv" + std::to_string(getpid()) + "x" + std::to_string(++counter);
  try {
    // Leftovers of runs whose process died (a crash, a killed test) go first.
    run_from_home({"bash", SORVALEN_VLAN_SCRIPT, "cleanup-stale"});
    script({"create"});
  } catch (...) {
    ::close(home_netns_);
    throw;
  }
}

VirtualLan::~VirtualLan() {
  try {
    script({"destroy"});
  } catch (...) {
    // The next run's stale cleanup removes what is left.
  }
  ::close(home_netns_);
}

// The script and its children never run inside the LAN they manage: called
// from inside a NetnsScope, a helper thread goes back home first.
CommandResult VirtualLan::run_from_home(const std::vector<std::string>& argv, int timeout_seconds) const {
  if (current_netns_id() == home_id_)
    return run_command(argv, timeout_seconds);
  CommandResult result;
  std::thread([&] {
    try {
      if (setns(home_netns_, CLONE_NEWNET) != 0)
        throw std::runtime_error("cannot return to own network namespace");
      result = run_command(argv, timeout_seconds);
    } catch (const std::exception& e) {
      result.err = e.what();
    }
  }).join();
  return result;
}

std::string VirtualLan::script(std::vector<std::string> args) const {
  args.insert(args.begin() + 1, run_);
  args.insert(args.begin(), {"bash", SORVALEN_VLAN_SCRIPT});
  const CommandResult result = run_from_home(args);
  if (!result.ok())
    throw std::runtime_error("vlan.sh " + args[2] + " failed: " + result.err);
  std::string out = result.out;
  while (!out.empty() && (out.back() == '\n' || out.back() == ' '))
    out.pop_back();
  return out;
}

CommandResult VirtualLan::exec(const std::string& host, const std::vector<std::string>& argv,
                               int timeout_seconds) const {
  std::vector<std::string> args = {"ip", "netns", "exec", netns(host)};
  args.insert(args.end(), argv.begin(), argv.end());
  return run_from_home(args, timeout_seconds);
}

}  // namespace sorvalen::test
