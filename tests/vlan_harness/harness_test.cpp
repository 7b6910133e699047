// The virtual-LAN harness: what, if it broke, would let other tests pass or
// fail for the wrong reason, or send on the host's interfaces.
#include <gtest/gtest.h>
#include <net/if.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "command.h"
#include "netns_scope.h"
#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace sorvalen::test {
namespace {

// Devices are found only through a scope, and nothing goes on the host's interfaces.
TEST(VirtualLanHarness, LansStayOffTheHostAndAScopeHoldsItsThreadAndThoseItMakes) {
  SV_REQUIRE_VIRTUAL_LAN();
  const std::string host_interfaces = run_command({"ip", "-br", "addr", "show"}).out;
  const unsigned long outside = current_netns_id();
  VirtualLan lan;
  lan.add_lan();
  lan.add_host("querier", {1});
  lan.add_host("tv", {1});
  lan.start_avahi("tv", {{"Living Room TV", "_http._tcp", 8008, {}}});
  EXPECT_EQ(run_command({"ip", "-br", "addr", "show"}).out, host_interfaces)
      << "nothing of the LAN on the host";
  {
    NetnsScope scope(lan.netns("querier"));
    unsigned long thread_saw = 0;
    std::thread([&] { thread_saw = current_netns_id(); }).join();
    EXPECT_NE(current_netns_id(), outside);
    EXPECT_EQ(thread_saw, current_netns_id()) << "threads made inside the scope are inside";
    EXPECT_NE(if_nametoindex("eth0"), 0u);
    EXPECT_EQ(lan.host_ipv4("tv"), "192.0.2.11") << "the harness works from inside a scope";
  }
  EXPECT_EQ(current_netns_id(), outside);
}

// Also run on its own, without root, by the test below.
TEST(VirtualLanRequirementProbe, NeedsTheVirtualLan) {
  SV_REQUIRE_VIRTUAL_LAN();
}

TEST(VirtualLanHarness, WithoutRootATestSkipsButFailsUnderCi) {
  SV_REQUIRE_VIRTUAL_LAN();
  // A copy outside the build tree, which an unprivileged user may not reach.
  char folder[] = "/tmp/sv-probe-XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  const std::string probe = std::string(folder) + "/probe";
  ASSERT_TRUE(run_command({"cp", "/proc/" + std::to_string(getpid()) + "/exe", probe}).ok());
  ASSERT_TRUE(run_command({"chmod", "755", folder, probe}).ok());
  for (const std::string ci : {"true", "false"}) {
    SCOPED_TRACE("CI=" + ci);
    const CommandResult r =
        run_command({"env", "CI=" + ci, "setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", probe,
                     "--gtest_filter=VirtualLanRequirementProbe.*"});
    EXPECT_NE(r.out.find("needs root"), std::string::npos) << r.out << r.err;
    EXPECT_EQ(r.exit_status, ci == "true" ? 1 : 0);
    const std::string verdict = ci == "true" ? "[  FAILED  ] " : "[  SKIPPED ] ";
    EXPECT_NE(r.out.find(verdict + "VirtualLanRequirementProbe"), std::string::npos) << r.out;
  }
  run_command({"rm", "-r", folder});
}

}  // namespace
}  // namespace sorvalen::test
