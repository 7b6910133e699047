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
  // The tool, always inside the querier's namespace.
  CommandResult Search(std::vector<std::string> args) {
    args.insert(args.begin(), {SORVALEN_TOOL, "search"});
    return lan_->exec("querier", args, 60);
  }

  std::optional<VirtualLan> lan_;
};

TEST_F(ToolSearchTest, PrintsEachEndpointOnceAsTextOrJsonAndExitsOneWhenNothingIsFound) {
  SV_REQUIRE_VIRTUAL_LAN();
  lan_.emplace();
  lan_->add_lan();
  lan_->add_host("querier", {1});
  lan_->add_host("dev", {1});
  lan_->start_avahi(
      "dev", {{"Say \"Hi\" \\ there", "_http._tcp", 8080, {}}, {"Kitchen Speaker", "_http._tcp", 80, {}}});
  const std::string dev = lan_->host_ipv4("dev");

  CommandResult r = Search({"_http._tcp", "--timeout", "4"});
  ASSERT_EQ(r.exit_status, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("Say \"Hi\" \\ there  _http._tcp.local.  " + dev + ":8080\n"));
  EXPECT_THAT(r.out, HasSubstr("Kitchen Speaker  _http._tcp.local.  " + dev + ":80\n"));
  std::vector<std::string> lines = lines_of(r.out);
  EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()).size(), lines.size()) << r.out;
  EXPECT_EQ(r.err, "") << "no status line when stderr is no terminal";

  r = Search({"_http._tcp", "--json", "--names", "zzz,HI", "--timeout", "4"});
  ASSERT_EQ(r.exit_status, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("{\"name\":\"Say \\\"Hi\\\" \\\\ there\",\"type\":\"_http._tcp.\",\"domain\":"
                               "\"local.\",\"family\":\"ipv4\",\"address\":\"" +
                               dev + "\",\"port\":8080}\n"));
  EXPECT_THAT(r.out, HasSubstr("\"family\":\"ipv6\",\"address\":\"fe80::"));
  EXPECT_THAT(r.out, Not(HasSubstr("Kitchen")));
  for (const std::string& line : lines_of(r.out)) {
    EXPECT_EQ(line.front(), '{') << line;
    EXPECT_EQ(line.back(), '}') << line;
  }

  r = Search({"_http._tcp", "--names", "zzz", "--timeout", "2"});
  EXPECT_EQ(r.exit_status, 1) << r.err;
  EXPECT_EQ(r.out, "");

  // Without a time limit, termination stops the search cleanly.
  const std::string script =
      std::string(SORVALEN_TOOL) +
      " search _http._tcp --timeout 0 & tool=$!; sleep 4; kill -TERM $tool; wait $tool";
  r = lan_->exec("querier", {"sh", "-c", script}, 30);
  EXPECT_EQ(r.exit_status, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("Kitchen Speaker"));
}

TEST_F(ToolSearchTest, BadInputAndABlockedPortExitTwoWithOneLineSayingWhy) {
  SV_REQUIRE_VIRTUAL_LAN();
  lan_.emplace();
  lan_->add_lan();
  lan_->add_host("querier", {1});
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
    SCOPED_TRACE(::testing::PrintToString(args));
    const CommandResult r = Search(args);
    EXPECT_EQ(r.exit_status, 2);
    EXPECT_EQ(r.out, "");
    ASSERT_EQ(lines_of(r.err).size(), 1u) << r.err;
    EXPECT_THAT(r.err, HasSubstr("sorvalen-mdns search: "));
  }
  EXPECT_THAT(Search({"_http._tcp", "--interface", "nope0"}).err, HasSubstr("nope0"));

  // Sockets bound to 5353 without address reuse keep the querier from sharing the port.
  const std::string holder =
      "import socket, subprocess, sys\n"
      "v4 = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
      "v4.bind(('0.0.0.0', 5353))\n"
      "v6 = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)\n"
      "v6.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)\n"
      "v6.bind(('::', 5353))\n"
      "sys.exit(subprocess.run(sys.argv[1:]).returncode)\n";
  const CommandResult blocked = lan_->exec(
      "querier", {"python3", "-c", holder, SORVALEN_TOOL, "search", "_http._tcp", "--timeout", "2"}, 30);
  EXPECT_EQ(blocked.exit_status, 2) << blocked.out;
  EXPECT_THAT(blocked.err, HasSubstr("5353"));

  const CommandResult help = Search({"--help"});
  EXPECT_EQ(help.exit_status, 0);
  for (const char* option : {"--domain", "--names", "--timeout", "--interface", "--json", "exit status"})
    EXPECT_THAT(help.out, HasSubstr(option));
}

}  // namespace
}  // namespace sorvalen::test
