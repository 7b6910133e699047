// sorvalen-mdns as a person or a script runs it, inside a virtual LAN's hosts.
#include <signal.h>
#include <stdlib.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "command.h"
#include "netns_scope.h"
#include "scripted_peer.h"
#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace sorvalen::test {
namespace {

using ::testing::HasSubstr;

constexpr const char* kService = "_http._tcp.local";
// Holds UDP port 5353 without address reuse, which keeps the querier from sharing it, and runs its arguments.
constexpr const char* kPortHolder =
    "import socket, subprocess, sys; s = [socket.socket(f, socket.SOCK_DGRAM) for f in (socket.AF_INET, "
    "socket.AF_INET6)]; s[1].setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1); s[0].bind(('0.0.0.0', "
    "5353)); s[1].bind(('::', 5353)); sys.exit(subprocess.run(sys.argv[1:]).returncode)";

struct Case {
  std::vector<std::string> args;  // the tool's arguments, or a command with the word TOOL in the tool's place
  int exit_status;
  std::string err;                             // found in stderr, which is one line; "": stderr empty
  std::string out = "";                        // found in stdout; "": stdout empty
  std::optional<Bytes> answer = std::nullopt;  // what a device on 127.0.0.1 answers (empty: nothing)
};

// "" stands for nothing at all, other texts for text found anywhere in the whole.
bool holds(const std::string& whole, const std::string& wanted) {
  return wanted.empty() ? whole.empty() : whole.find(wanted) != std::string::npos;
}

// Runs one case in the querier's namespace, with a scripted device on its
// loopback when the case has an answer.
CommandResult run_case(const VirtualLan& lan, const Case& c) {
  std::vector<std::string> argv = c.args;
  const auto tool = std::find(argv.begin(), argv.end(), "TOOL");
  tool == argv.end() ? (void)argv.insert(argv.begin(), SORVALEN_TOOL) : (void)(*tool = SORVALEN_TOOL);
  if (!c.answer)
    return lan.exec("querier", argv, 60);
  NetnsScope scope(lan.netns("querier"));
  ScriptedPeer peer;
  std::thread device([&] {
    ReceivedQuery query;
    if (peer.await_query(&query, std::chrono::seconds(30)) && !c.answer->empty())
      peer.reply(query, *c.answer);
  });
  const CommandResult result = lan.exec("querier", argv, 60);
  device.join();
  return result;
}

TEST(Tool, SaysWhatWentWrongOrWhatCameWithTheRightExitStatusAndShowsInstancesComeAndGo) {
  SV_REQUIRE_VIRTUAL_LAN();
  VirtualLan lan;
  lan.add_lan();
  lan.add_host("querier", {1});
  const Bytes usable = answer(7, kService, {ptr("Living \"Room\"._http._tcp.local"), srv(8080)});
  const Bytes ptr_only = answer(1, kService, {ptr("tv._http._tcp.local")});
  const std::string ok = "ok address=127.0.0.1 port=8080 name=\"Living \\\"Room\\\"._http._tcp.local\"\n";
  const std::string ok_json = "{\"result\":\"ok\",\"address\":\"127.0.0.1\",\"port\":8080,";
  const std::string silent = "no answer from 127.0.0.1 for \"_http._tcp.local\" within 5 s";
  const std::string silent_json = "{\"result\":\"no-answer\",\"address\":\"127.0.0.1\"}\n";
  const std::vector<Case> cases = {
      {{"search"}, 2, "e.g. _http._tcp; see 'sorvalen-mdns help search'"},
      {{"search", "http"}, 2, "write it as _name._tcp or _name._udp, e.g. _http._tcp"},
      {{"search", "--bogus", "_http._tcp"}, 2, "unknown option '--bogus'"},
      {{"search", "_http._tcp", "--timeout"}, 2, "option '--timeout' needs a value"},
      {{"search", "--timeout=-1", "_http._tcp"}, 2, "takes whole seconds from 0 (no limit) to 86400"},
      {{"search", "-n", " , ", "_http._tcp"}, 2, "--names has no word"},
      {{"search", "-d", "", "_http._tcp"}, 2, "the domain is empty"},
      {{"search", "-i", "nope0", "_http._tcp"}, 2, "there is no network interface 'nope0'; usable: eth0"},
      {{"search", "-i", "lo", "_http._tcp"}, 2, "interface 'lo': loopback, used only when no other"},
      {{"unshare", "-n", "TOOL", "search", "_http._tcp"}, 2, "no usable network interface (lo: down)"},
      {{"python3", "-c", kPortHolder, "TOOL", "search", "_http._tcp"}, 2, "cannot open UDP port 5353"},
      {{"search", "-t1", "-n", "tv, kitchen", "--", "_ipp._tcp"}, 1, "name contains \"tv\" or \"kitchen\""},
      {{"lookup"}, 2, "give an IPv4 address and a name"},
      {{"lookup", "printer.local", kService}, 2, "'printer.local' is not an IPv4 address"},
      {{"lookup", "--id", "65536", "127.0.0.1", kService}, 2, "--id takes a number from 0 to 65535"},
      {{"lookup", "127.0.0.1", kService, "--id=7"}, 0, "", ok, usable},
      {{"lookup", "-j", "127.0.0.1", kService}, 0, "", ok_json, usable},
      {{"lookup", "127.0.0.1", kService}, 1, "127.0.0.1 answered, but no PTR and SRV record", "", ptr_only},
      {{"lookup", "--json", "127.0.0.1", kService}, 1, silent, silent_json, Bytes{}},
      {{"find"}, 2, "unknown command 'find'"},
      {{"search", "-s", "_a._b", "_http._tcp"}, 2, "'_a._b' is not a subtype; give one label"},
      {{"types", "_http._tcp"}, 2, "takes no words but options"},
      {{"types", "-t1"}, 1, "no device announced a service type in local. within"},
      {{"resolve"}, 2, "give one host name, e.g. printer.local"},
      {{"resolve", "printer"}, 2, "'printer' is not a host name"},
      {{"resolve", "-t1", "printer.local"}, 1, "no address for printer.local within 1.0 s"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    const CommandResult r = run_case(lan, c);
    EXPECT_EQ(r.exit_status, c.exit_status) << r.err;
    EXPECT_TRUE(holds(r.err, c.err)) << r.err;
    EXPECT_EQ(r.err.find('\n'), c.err.empty() ? std::string::npos : r.err.size() - 1)
        << "one line: " << r.err;
    EXPECT_TRUE(holds(r.out, c.out)) << r.out;
  }

  // Two searches, as text and as JSON, see an instance come and go, link-local
  // addresses with their zone; names that hold line breaks (also those of
  // Unicode, for readers that split there), blanks and invisible characters
  // cannot forge or shift a line.
  lan.add_host("dev", {1});
  lan.start_avahi("dev", {{"Kitchen  Speaker", "_http._tcp", 80, {}}});
  // To a running daemon: the start waits for its services by name.
  const std::string forged = "Line1\nFAKE\t_http._tcp.local.\t6.6.6.6:666";
  const std::string unicode_breaks = "\u2028+\tX\u2029\u200b\ufeff\U000e0041";
  lan.add_service("dev", {forged + unicode_breaks, "_http._tcp", 81, {}});
  const std::string v4 = lan.host_ipv4("dev"), v6 = lan.host_ipv6_link_local("dev");

  char folder[] = "/tmp/sv-tool-XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  const std::string dir = folder;
  const auto read = [&](const std::string& file) { return run_command({"cat", dir + "/" + file}).out; };
  std::vector<std::thread> searches;
  for (const std::string mode : {"text", "json"}) {
    const std::string options = mode == "json" ? " --json --interface eth0" : "";
    const std::string script = "echo $$ >" + dir + "/" + mode + ".pid; exec " + SORVALEN_TOOL +
                               " search _http._tcp -t 0" + options + " >" + dir + "/" + mode;
    searches.emplace_back([&lan, script] { lan.exec("querier", {"sh", "-c", script}, 120); });
  }
  const auto wait_for = [&](const std::string& mode, const std::string& wanted) {
    for (int i = 0; i < 300 && read(mode).find(wanted) == std::string::npos; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
  };
  const auto line = [&](const std::string& event, const std::string& endpoint) {
    return event + "\tKitchen  Speaker\t_http._tcp.local.\t" + endpoint + ":80\n";
  };
  const std::string json_removed =
      "{\"event\":\"remove\",\"name\":\"Kitchen  Speaker\",\"type\":\"_http._tcp.\","
      "\"domain\":\"local.\",\"family\":\"ipv6\",\"address\":\"" +
      v6 + "\",\"port\":80,\"interface\":\"eth0\"}\n";
  const std::string zoned = "[" + v6 + "%eth0]";
  const std::string forged_line =
      "+\tLine1\\nFAKE\\t_http._tcp.local.\\t6.6.6.6:666\\u2028+\\tX\\u2029\\u200b"
      "\\ufeff\\U000e0041\t_http._tcp.local.\t" +
      v4 + ":81\n";
  wait_for("text", line("+", zoned));
  wait_for("text", forged_line);
  lan.remove_service("dev", "Kitchen  Speaker", "_http._tcp");
  wait_for("text", line("-", zoned));
  wait_for("json", json_removed);
  for (const std::string mode : {"text", "json"})
    kill(std::stoi("0" + read(mode + ".pid")), SIGTERM);
  for (std::thread& search : searches)
    search.join();
  const std::string text = read("text"), json = read("json");
  run_command({"rm", "-r", dir});

  for (const std::string& expected :
       {line("+", v4), line("+", zoned), forged_line, line("-", v4), line("-", zoned)})
    EXPECT_THAT(text, HasSubstr(expected));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\t'), 3 * std::count(text.begin(), text.end(), '\n'))
      << text;
  EXPECT_THAT(json, HasSubstr(json_removed));
  EXPECT_THAT(json, HasSubstr("\"name\":\"Line1\\nFAKE\\t_http._tcp.local.\\t6.6.6.6:666\\u2028+\\tX\\u2029"
                              "\\u200b\\ufeff\\udb40\\udc41\""));
  // Every character beyond ASCII in these names is one to escape.
  for (const std::string& output : {text, json})
    EXPECT_TRUE(std::none_of(output.begin(), output.end(), [](char c) { return (c & 0x80) != 0; })) << output;

  // A subtype's instances with their TXT, the link's types, a host's addresses.
  lan.add_service("dev", {"Laser", "_http._tcp,_printer._sub._http._tcp", 631, {"note=a b", "duplex"}});
  const std::vector<Case> found = {
      {{"search", "-t2", "--subtype", "_printer", "_http._tcp"},
       0,
       "",
       "\tLaser\t_http._tcp.local.\t" + v4 + ":631\tnote=a\\x20b duplex\n"},  // + or ~: TXT may come late
      {{"search", "-t2", "-j", "-n", "laser", "_http._tcp"},
       0,
       "",
       "\"txt\":{\"note\":\"a b\",\"duplex\":null}}\n"},
      {{"types", "-t2"}, 0, "", "+\t_http._tcp.\tlocal.\n"},
      {{"resolve", "dev.local"}, 0, "", v4 + "\n" + v6 + "%eth0\n"},
  };
  for (const Case& c : found) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    const CommandResult r = run_case(lan, c);
    EXPECT_EQ(r.exit_status, c.exit_status) << r.err;
    EXPECT_TRUE(holds(r.out, c.out)) << r.out;
    EXPECT_EQ(r.out.find("Line1"), std::string::npos) << "only the subtype's instances";
  }
}

}  // namespace
}  // namespace sorvalen::test
