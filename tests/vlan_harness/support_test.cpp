#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "avahi_browse_output.h"
#include "command.h"
#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace sorvalen::test {
namespace {

TEST(RunCommandTest, SeparatesOutputStreamsAndReportsExitStatus) {
  const CommandResult r = run_command({"sh", "-c", "echo out; echo err >&2; exit 3"});
  EXPECT_EQ(r.out, "out\n");
  EXPECT_EQ(r.err, "err\n");
  EXPECT_EQ(r.exit_status, 3);
  EXPECT_FALSE(r.ok());
}

TEST(RunCommandTest, CollectsOutputLargerThanAPipe) {
  const CommandResult r = run_command({"sh", "-c", "head -c 200000 /dev/zero; head -c 100000 /dev/zero >&2"});
  EXPECT_TRUE(r.ok());
  EXPECT_EQ(r.out.size(), 200000u);
  EXPECT_EQ(r.err.size(), 100000u);
}

TEST(RunCommandTest, KillsAChildThatOverstaysItsTime) {
  const auto start = std::chrono::steady_clock::now();
  const CommandResult r = run_command({"sleep", "30"}, 1);
  EXPECT_EQ(r.exit_status, -1);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

TEST(RunCommandTest, MissingProgramThrows) {
  EXPECT_THROW(run_command({"/nonexistent/program"}), std::runtime_error);
}

TEST(AvahiBrowseOutputTest, ReadsResolvedLinesAndUnescapesNames) {
  const std::string output =
      "+;eth0;IPv4;Living\\032Room\\032TV;Web Site;local\n"
      "=;eth0;IPv4;Living\\032Room\\032TV;Web Site;local;tv.local;192.0.2.11;8008;\"path=/\"\n"
      "=;eth1;IPv6;A\\059B\\046C;_x._tcp;local;b.local;fe80::1;1;\n"
      "=;short;line\n";
  const auto found = parse_resolved_services(output);
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0].name, "Living Room TV");
  EXPECT_EQ(found[0].address, "192.0.2.11");
  EXPECT_EQ(found[0].port, 8008);
  EXPECT_EQ(found[0].host, "tv.local");
  EXPECT_EQ(found[1].name, "A;B.C");
  EXPECT_EQ(found[1].interface, "eth1");
  EXPECT_EQ(found[1].protocol, "IPv6");
}

TEST(StaleRunCleanupTest, RemovesNamespacesOfDeadOwnersOnly) {
  SV_REQUIRE_VIRTUAL_LAN();
  // A run "owned" by a process that has exited.
  const CommandResult child = run_command({"sh", "-c", "echo $$"});
  const std::string dead_run = "sv" + child.out.substr(0, child.out.size() - 1);
  const std::string script = SORVALEN_VLAN_SCRIPT_FOR_TESTS;
  ASSERT_TRUE(run_command({"bash", script, "create", dead_run}).ok());
  ASSERT_TRUE(run_command({"bash", script, "add-lan", dead_run, "1"}).ok());
  ASSERT_TRUE(run_command({"bash", script, "add-host", dead_run, "h", "1"}).ok());

  VirtualLan live;  // cleans up stale runs as it starts
  live.add_lan();
  live.add_host("h", {1});

  const CommandResult namespaces = run_command({"ip", "netns", "list"});
  EXPECT_EQ(namespaces.out.find(dead_run + "-"), std::string::npos) << namespaces.out;
  EXPECT_NE(namespaces.out.find(live.netns("h")), std::string::npos) << namespaces.out;
  run_command({"bash", script, "destroy", dead_run});
}

}  // namespace
}  // namespace sorvalen::test
