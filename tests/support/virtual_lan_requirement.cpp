#include "virtual_lan_requirement.h"

#include <unistd.h>

#include <cstdlib>

#include "command.h"

namespace sorvalen::test {

std::string virtual_lan_unavailable_reason() {
  static const std::string reason = [] {
    const std::string needs_root = "needs root for network namespaces; run as root or with sudo";
    if (geteuid() != 0)
      return needs_root;
    try {
      if (!run_command({"ip", "netns", "list"}, 30).ok())
        return needs_root;
      for (const char* tool : {"avahi-daemon", "tcpdump", "unshare", "nsenter"}) {
        if (!run_command({"sh", "-c", std::string("command -v ") + tool}, 30).ok())
          return std::string(tool) + " is missing; run scripts/install-deps.sh";
      }
    } catch (const std::exception& e) {
      return needs_root + " (" + e.what() + ")";
    }
    return std::string();
  }();
  return reason;
}

bool running_in_ci() {
  const char* ci = std::getenv("CI");
  return ci != nullptr && std::string(ci) == "true";
}

}  // namespace sorvalen::test
