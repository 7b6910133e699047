#include "netns_scope.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <thread>

#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace sorvalen::test {
namespace {

bool can_bind(const std::string& ipv4) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0)
    return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, ipv4.c_str(), &address.sin_addr);
  const bool bound = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return bound;
}

TEST(NetnsScopeTest, MovesOnlyTheCallingThreadAndItsNewThreads) {
  SV_REQUIRE_VIRTUAL_LAN();
  VirtualLan lan;
  lan.add_lan();
  lan.add_host("querier", {1});
  const unsigned long outside = current_netns_id();
  const std::string address = lan.host_ipv4("querier");
  ASSERT_FALSE(can_bind(address));

  unsigned long other_thread_saw = 0;
  unsigned long child_thread_saw = 0;
  {
    NetnsScope scope(lan.netns("querier"));
    EXPECT_NE(current_netns_id(), outside);
    EXPECT_NE(if_nametoindex("eth0"), 0u);
    EXPECT_TRUE(can_bind(address));
    std::thread child([&] { child_thread_saw = current_netns_id(); });
    child.join();
    std::thread([&] { other_thread_saw = current_netns_id(); }).join();
    EXPECT_EQ(child_thread_saw, current_netns_id());
  }
  EXPECT_EQ(current_netns_id(), outside);
  EXPECT_FALSE(can_bind(address));
  EXPECT_NE(other_thread_saw, outside);

  std::thread([&] { other_thread_saw = current_netns_id(); }).join();
  EXPECT_EQ(other_thread_saw, outside);
}

TEST(NetnsScopeTest, ScopesNestAndUnknownNamespacesThrow) {
  SV_REQUIRE_VIRTUAL_LAN();
  VirtualLan lan;
  lan.add_lan();
  lan.add_host("a", {1});
  lan.add_host("b", {1});
  const unsigned long outside = current_netns_id();
  {
    NetnsScope in_a(lan.netns("a"));
    const unsigned long a = current_netns_id();
    {
      NetnsScope in_b(lan.netns("b"));
      EXPECT_NE(current_netns_id(), a);
    }
    EXPECT_EQ(current_netns_id(), a);
  }
  EXPECT_EQ(current_netns_id(), outside);

  EXPECT_THROW(NetnsScope(lan.run_name() + "-nosuchhost"), std::runtime_error);
  EXPECT_THROW(NetnsScope("../../proc/self/ns/net"), std::invalid_argument);
  EXPECT_EQ(current_netns_id(), outside);
}

TEST(NetnsScopeTest, TearingTheLanDownLeavesAThreadInsideUnharmed) {
  SV_REQUIRE_VIRTUAL_LAN();
  const unsigned long outside = current_netns_id();
  auto lan = std::make_unique<VirtualLan>();
  lan->add_lan();
  lan->add_host("querier", {1});
  {
    NetnsScope scope(lan->netns("querier"));
    // The teardown kills every process inside the run's namespaces; this one
    // must be spared, and the namespace lives on while this thread is in it.
    lan.reset();
    EXPECT_NE(if_nametoindex("lo"), 0u);
  }
  EXPECT_EQ(current_netns_id(), outside);
}

}  // namespace
}  // namespace sorvalen::test
