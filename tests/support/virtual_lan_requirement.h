#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "command.h"

namespace sorvalen::test {

// Empty when this process can build virtual LANs and has `tools`, else why not.
inline std::string virtual_lan_unavailable_reason(std::vector<std::string> tools) {
  if (geteuid() != 0 || !run_command({"ip", "netns", "list"}, 30).ok())
    return "needs root for network namespaces; run as root or with sudo";
  tools.insert(tools.end(), {"avahi-daemon", "tcpdump", "unshare", "nsenter"});
  for (const std::string& tool : tools) {
    if (!run_command({"sh", "-c", "command -v " + tool}, 30).ok())
      return tool + " is missing; run scripts/install-deps.sh";
  }
  return "";
}

}  // namespace sorvalen::test

// First statement of every test that needs a VirtualLan (and the programs
// named): skips the test without them, but fails it in CI (CI=true), where a
// skip would hide a gap.
#define SV_REQUIRE_VIRTUAL_LAN(...)                                                                 \
  do {                                                                                              \
    const std::string sv_reason_ = ::sorvalen::test::virtual_lan_unavailable_reason({__VA_ARGS__}); \
    const char* sv_ci_ = std::getenv("CI");                                                         \
    if (!sv_reason_.empty() && sv_ci_ != nullptr && std::string(sv_ci_) == "true")                  \
      FAIL() << sv_reason_;                                                                         \
    if (!sv_reason_.empty())                                                                        \
      GTEST_SKIP() << sv_reason_;                                                                   \
  } while (0)
