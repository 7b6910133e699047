// The virtual-LAN harness: what, if it broke, would let other tests pass
// silently or send on the host's interfaces.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "command.h"
#include "netns_scope.h"
#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace sorvalen::test {
namespace {

bool can_bind(const std::string& ipv4) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, ipv4.c_str(), &address.sin_addr);
  const bool bound = fd >= 0 && bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return bound;
}

// The interfaces and addresses of the calling thread's namespace.
std::string interfaces_here() {
  const CommandResult r = run_command({"ip", "-br", "addr", "show"});
  EXPECT_TRUE(r.ok()) << r.err;
  return r.out;
}

TEST(VirtualLanHarness, LansStayOffTheHostAndOnlyTheScopedThreadEntersThem) {
  SV_REQUIRE_VIRTUAL_LAN();
  const std::string host_interfaces = interfaces_here();
  const unsigned long outside = current_netns_id();
  VirtualLan lan;
  lan.add_lan();
  lan.add_host("querier", {1});
  lan.add_host("tv", {1});
  lan.start_avahi("tv", {{"Living Room TV", "_http._tcp", 8008, {}}});
  EXPECT_EQ(interfaces_here(), host_interfaces) << "no link or address of the LAN on the host";
  const std::string address = lan.host_ipv4("querier");
  EXPECT_FALSE(can_bind(address));

  unsigned long other_thread_saw = 0;
  unsigned long child_thread_saw = 0;
  std::atomic<bool> entered{false};
  std::thread other([&] {
    for (int i = 0; i < 2000 && !entered; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    other_thread_saw = current_netns_id();
  });
  {
    NetnsScope scope(lan.netns("querier"));
    entered = true;
    EXPECT_NE(current_netns_id(), outside);
    EXPECT_NE(if_nametoindex("eth0"), 0u);
    EXPECT_TRUE(can_bind(address));
    EXPECT_EQ(lan.host_ipv4("tv"), "192.0.2.11") << "the harness works from inside a scope";
    std::thread([&] { child_thread_saw = current_netns_id(); }).join();
    EXPECT_EQ(child_thread_saw, current_netns_id());
    other.join();
  }
  EXPECT_EQ(other_thread_saw, outside);
  EXPECT_EQ(current_netns_id(), outside);
  EXPECT_FALSE(can_bind(address));
  EXPECT_THROW(NetnsScope("../../proc/self/ns/net"), std::invalid_argument);
}

TEST(VirtualLanHarness, RemovesTheNamespacesAndDaemonsOfARunAlsoAfterItsOwnerDied) {
  SV_REQUIRE_VIRTUAL_LAN();
  // A run "owned" by a process that has exited.
  const CommandResult child = run_command({"sh", "-c", "echo $$"});
  const std::string dead_run = "sv" + child.out.substr(0, child.out.size() - 1);
  const std::string script = SORVALEN_VLAN_SCRIPT_FOR_TESTS;
  ASSERT_TRUE(run_command({"bash", script, "create", dead_run}).ok());
  ASSERT_TRUE(run_command({"bash", script, "add-lan", dead_run, "1"}).ok());
  ASSERT_TRUE(run_command({"bash", script, "add-host", dead_run, "h", "1"}).ok());

  std::string run;
  {
    VirtualLan live;  // cleans up stale runs as it starts
    live.add_lan();
    live.add_host("h", {1});
    live.start_avahi("h", {{"Living Room TV", "_http._tcp", 8008, {}}});
    run = live.run_name();
    const std::string namespaces = run_command({"ip", "netns", "list"}).out;
    EXPECT_EQ(namespaces.find(dead_run + "-"), std::string::npos) << namespaces;
    EXPECT_NE(namespaces.find(live.netns("h")), std::string::npos) << namespaces;
  }
  const CommandResult namespaces = run_command({"ip", "netns", "list"});
  ASSERT_TRUE(namespaces.ok());
  EXPECT_EQ(namespaces.out.find(run + "-"), std::string::npos) << namespaces.out;
  EXPECT_EQ(run_command({"pgrep", "-f", "sorvalen-vlan/" + run + "/"}).out, "");
  run_command({"bash", script, "destroy", dead_run});
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
  char self[4096] = {};
  ASSERT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
  ASSERT_TRUE(run_command({"cp", self, probe}).ok());
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
