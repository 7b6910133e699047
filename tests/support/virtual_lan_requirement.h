#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "command.h"

namespace sorvalen::test {

// Empty when this process can build virtual LANs, else why not.
inline std::string virtual_lan_unavailable_reason() {
  static const std::string reason = [] {
    if (geteuid() != 0 || !run_command({"ip", "netns", "list"}, 30).ok())
      return std::string("needs root for network namespaces; run as root or with sudo");
    for (const char* tool : {"avahi-daemon", "tcpdump", "unshare", "nsenter"}) {
      if (!run_command({"sh", "-c", std::string("command -v ") + tool}, 30).ok())
        return std::string(tool) + " is missing; run scripts/install-deps.sh";
    }
    return std::string();
  }();
  return reason;
}

// CI=true: a test that cannot run there is a failure, not a skip.
inline bool running_in_ci() {
  const char* ci = std::getenv("CI");
  return ci != nullptr && std::string(ci) == "true";
}

}  // namespace sorvalen::test

// First statement of every test that needs a VirtualLan: skips the test
// without root (fails it in CI, where a skip would hide a gap).
#define SV_REQUIRE_VIRTUAL_LAN()                                                       \
  do {                                                                                 \
    const std::string sv_reason_ = ::sorvalen::test::virtual_lan_unavailable_reason(); \
    if (!sv_reason_.empty()) {                                                         \
      if (::sorvalen::test::running_in_ci())                                           \
        FAIL() << sv_reason_;                                                          \
      GTEST_SKIP() << sv_reason_;                                                      \
    }                                                                                  \
  } while (0)
