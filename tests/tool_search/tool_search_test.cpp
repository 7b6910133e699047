// sorvalen-mdns search as a user runs it: output, exit statuses, messages.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace sorvalen::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

class ToolSearchTest : public ::testing::Test {
 protected:
  void BuildLan(const std::vector<ServiceSpec>& services) {
    lan_.emplace();
    lan_->add_lan();
    lan_->add_host("querier", {1});
    if (services.empty())
      return;
    lan_->add_host("dev", {1});
    lan_->start_avahi("dev", services);
  }

  // The tool, always inside the querier's namespace.
  CommandResult Search(std::vector<std::string> args, int timeout_seconds = 60) {
    args.insert(args.begin(), {SORVALEN_TOOL, "search"});
    return lan_->exec("querier", args, timeout_seconds);
  }

  std::optional<VirtualLan> lan_;
};

TEST_F(ToolSearchTest, PrintsEachEndpointOnceAndExitsZero) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({{"Living Room TV", "_http._tcp", 8080, {}}, {"Kitchen Speaker", "_http._tcp", 80, {}}});
  const CommandResult r = Search({"_http._tcp", "--timeout", "4"});
  ASSERT_EQ(r.exit_status, 0) << r.err;
  const std::string dev = lan_->host_ipv4("dev");
  EXPECT_THAT(r.out, HasSubstr("Living Room TV  _http._tcp.local.  " + dev + ":8080\n"));
  EXPECT_THAT(r.out, HasSubstr("Kitchen Speaker  _http._tcp.local.  " + dev + ":80\n"));
  const std::vector<std::string> lines = lines_of(r.out);
  EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()).size(), lines.size()) << r.out;
  EXPECT_EQ(r.err, "") << "no status line when stderr is no terminal";
}

TEST_F(ToolSearchTest, JsonLinesEscapeNamesAndHonourTheFilter) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({{"Say \"Hi\" \\ there", "_http._tcp", 8080, {}}, {"Kitchen Speaker", "_http._tcp", 80, {}}});
  const CommandResult r = Search({"_http._tcp", "--json", "--names", "zzz,HI", "--timeout", "4"});
  ASSERT_EQ(r.exit_status, 0) << r.err;
  const std::string dev = lan_->host_ipv4("dev");
  EXPECT_THAT(r.out, HasSubstr("{\"name\":\"Say \\\"Hi\\\" \\\\ there\",\"type\":\"_http._tcp.\",\"domain\":"
                               "\"local.\",\"family\":\"ipv4\",\"address\":\"" +
                               dev + "\",\"port\":8080}\n"));
  EXPECT_THAT(r.out, HasSubstr("\"family\":\"ipv6\",\"address\":\"fe80::"));
  EXPECT_THAT(r.out, Not(HasSubstr("Kitchen")));
  for (const std::string& line : lines_of(r.out)) {
    EXPECT_EQ(line.front(), '{') << line;
    EXPECT_EQ(line.back(), '}') << line;
  }
}

TEST_F(ToolSearchTest, NothingFoundExitsOne) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({{"Living Room TV", "_http._tcp", 8080, {}}});
  const CommandResult r = Search({"_http._tcp", "--names", "zzz", "--timeout", "2"});
  EXPECT_EQ(r.exit_status, 1) << r.err;
  EXPECT_EQ(r.out, "");
}

TEST_F(ToolSearchTest, TerminationStopsTheSearchCleanly) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({{"Living Room TV", "_http._tcp", 8080, {}}});
  const std::string script =
      std::string(SORVALEN_TOOL) +
      " search _http._tcp --timeout 0 & tool=$!; sleep 4; kill -TERM $tool; wait $tool";
  const CommandResult r = lan_->exec("querier", {"sh", "-c", script}, 30);
  EXPECT_EQ(r.exit_status, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("Living Room TV"));
}

TEST_F(ToolSearchTest, BadInputExitsTwoWithOneLineSayingWhatToDo) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({});
  const std::vector<std::vector<std::string>> cases = {
      {},
      {""},
      {"--bogus", "_http._tcp"},
      {"_http._tcp", "_ipp._tcp"},
      {"_http._tcp", "--timeout"},
      {"_http._tcp", "--timeout", "soon"},
      {"_http._tcp", "--timeout", "-1"},
      {"_http._tcp", "--domain", ""},
      {"_http._tcp", "--interface", "nope0"},
  };
  for (const auto& args : cases) {
    std::string shown;
    for (const auto& arg : args)
      shown += "'" + arg + "' ";
    SCOPED_TRACE(shown);
    const CommandResult r = Search(args);
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.out, "");
    ASSERT_EQ(lines_of(r.err).size(), 1u) << r.err;
    EXPECT_THAT(r.err, HasSubstr("sorvalen-mdns search: "));
  }
  EXPECT_THAT(Search({"_http._tcp", "--interface", "nope0"}).err, HasSubstr("nope0"));
}

TEST_F(ToolSearchTest, PortHeldExclusivelyExitsTwo) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({});
  // Sockets bound to 5353 without address reuse keep the querier from sharing the port.
  const std::string holder =
      "import socket, subprocess, sys\n"
      "v4 = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
      "v4.bind(('0.0.0.0', 5353))\n"
      "v6 = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)\n"
      "v6.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)\n"
      "v6.bind(('::', 5353))\n"
      "sys.exit(subprocess.run(sys.argv[1:]).returncode)\n";
  const CommandResult r = lan_->exec(
      "querier", {"python3", "-c", holder, SORVALEN_TOOL, "search", "_http._tcp", "--timeout", "2"}, 30);
  EXPECT_EQ(r.exit_status, 2) << r.out;
  EXPECT_THAT(r.err, HasSubstr("5353"));
}

TEST_F(ToolSearchTest, HelpDocumentsEveryOption) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({});
  const CommandResult r = Search({"--help"});
  EXPECT_EQ(r.exit_status, 0);
  for (const char* option : {"--domain", "--names", "--timeout", "--interface", "--json", "exit status"}) {
    EXPECT_THAT(r.out, HasSubstr(option));
  }
}

}  // namespace
}  // namespace sorvalen::test
