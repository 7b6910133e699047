// The virtual-LAN harness: what, if it broke, would let the LAN tests send on
// the host's interfaces or search from the wrong namespace.
#include <gtest/gtest.h>
#include <net/if.h>

#include <string>
#include <thread>

#include "command.h"
#include "netns_scope.h"
#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace sorvalen::test {
namespace {

TEST(VirtualLanHarness, LansStayOffTheHostAndAScopeHoldsItsThreadAndThoseItMakes) {
  SV_REQUIRE_VIRTUAL_LAN();
  const std::string host_interfaces = run_command({"ip", "-br", "addr", "show"}).out;
  const unsigned long outside = current_netns_id();
  VirtualLan lan;
  lan.add_lan();
  lan.add_host("querier", {1});
  lan.add_host("tv", {1});
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

}  // namespace
}  // namespace sorvalen::test
