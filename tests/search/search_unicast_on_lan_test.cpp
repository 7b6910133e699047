// A search of another domain than local. on a virtual LAN: a real DNS server
// (BIND 9) publishes the services of example.test., the querier's resolver
// file names it as the only name server, and an avahi-daemon device announces
// a service in local. on the same link.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "command.h"
#include "netns_scope.h"
#include "resolver_scope.h"
#include "sorvalen/mdns_search.h"
#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace sorvalen::test {
namespace {

using ::testing::HasSubstr;

constexpr int kTtlSeconds = 4;

// Every record of both lists as "NAME TYPEDOMAIN ADDRESS:PORT", the tool's form.
std::vector<std::string> endpoints() {
  std::vector<std::string> out;
  char text[INET6_ADDRSTRLEN] = {};
  std::lock_guard<std::mutex> lock(MDNSSearch::address_list_mutex_);
  for (const IPAddressV4& r : MDNSSearch::address_list_) {
    inet_ntop(AF_INET, &r.address, text, sizeof text);
    out.push_back(r.name + " " + r.type + r.domain + " " + text + ":" + std::to_string(r.port));
  }
  for (const IPAddressV6& r : MDNSSearch::addressV6_list_) {
    unsigned char bytes[16];
    for (int i = 0; i < 8; ++i) {
      bytes[2 * i] = static_cast<unsigned char>(r.address[i] >> 8);
      bytes[2 * i + 1] = static_cast<unsigned char>(r.address[i] & 0xff);
    }
    inet_ntop(AF_INET6, bytes, text, sizeof text);
    out.push_back(r.name + " " + r.type + r.domain + " [" + text + "]:" + std::to_string(r.port));
  }
  return out;
}

size_t count_of(const std::vector<std::string>& list, const std::string& endpoint) {
  return static_cast<size_t>(std::count(list.begin(), list.end(), endpoint));
}

std::string listed(const std::vector<std::string>& list) {
  std::string text = "lists:";
  for (const std::string& endpoint : list)
    text += "\n  " + endpoint;
  return text;
}

bool wait_until(const std::function<bool()>& condition, int seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

std::string file_text(const char* path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

const std::string kPrinter4 = "Office Printer _http._tcp.example.test. 198.51.100.50:631";
const std::string kPrinter6 = "Office Printer _http._tcp.example.test. [2001:db8::50]:631";
const std::string kAdmin4 = "Printer Admin _http._tcp.example.test. 198.51.100.50:80";
const std::string kAdmin6 = "Printer Admin _http._tcp.example.test. [2001:db8::50]:80";
const std::string kCamera4 = "Door Camera _http._tcp.example.test. 198.51.100.60:8554";
const std::string kCamera6 = "Door Camera _http._tcp.example.test. [2001:db8::60]:8554";

TEST(SearchUnicastOnLanTest, FindsTheZonesServicesFollowsAReloadAndLocalKeepsWorkingBeside) {
  SV_REQUIRE_VIRTUAL_LAN();
  if (!run_command({"sh", "-c", "command -v named"}, 30).ok()) {
    if (running_in_ci())
      FAIL() << "named is missing; run scripts/install-deps.sh";
    GTEST_SKIP() << "named is missing; run scripts/install-deps.sh";
  }
  VirtualLan lan;
  lan.add_lan();
  for (const char* host : {"querier", "dns", "dev"})
    lan.add_host(host, {1});
  lan.start_avahi("dev", {{"Living Room TV", "_http._tcp", 8080, {}}});
  lan.dns_address("dns", "printer", {"198.51.100.50", "2001:db8::50"});
  lan.dns_address("dns", "camera", {"198.51.100.60", "2001:db8::60"});
  lan.dns_service("dns", {"Office Printer", "_http._tcp", 631, {"rp=ipp/print"}}, "printer");
  lan.dns_service("dns", {"Printer Admin", "_http._tcp", 80, {}}, "printer");
  lan.dns_service("dns", {"Door Camera", "_http._tcp", 8554, {}}, "camera");
  lan.start_dns("dns", "example.test.", kTtlSeconds);
  const std::string resolver_file = lan.use_dns("querier", "dns");

  NetnsScope netns(lan.netns("querier"));
  ResolverScope resolver(resolver_file);
  // Unicast DNS goes to the run's server and nowhere else.
  ASSERT_EQ(file_text("/etc/resolv.conf"), "nameserver " + lan.host_ipv4("dns") + "\n");
  std::unique_ptr<MDNSSearch> search(MDNSSearch::CreateMDNSSearch());
  ASSERT_TRUE(search->Init());
  ASSERT_TRUE(search->Start(",", "_http._tcp", "example.test.", 0, ""));
  const std::vector<std::string> zone = {kPrinter4, kPrinter6, kAdmin4, kAdmin6, kCamera4, kCamera6};
  ASSERT_TRUE(wait_until(
      [&] {
        const std::vector<std::string> now = endpoints();
        return std::all_of(zone.begin(), zone.end(),
                           [&](const std::string& e) { return count_of(now, e) > 0; });
      },
      20))
      << listed(endpoints());

  // The tool, started by `ip netns exec` (which shows the querier's resolver
  // file), searches local. beside the running search, then example.test.
  const std::string dev = lan.host_ipv4("dev");
  CommandResult r = lan.exec("querier", {SORVALEN_TOOL, "search", "_http._tcp", "--timeout", "5"}, 60);
  EXPECT_EQ(r.exit_status, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("+\tLiving Room TV\t_http._tcp.local.\t" + dev + ":8080\n"));
  r = lan.exec("querier",
               {SORVALEN_TOOL, "search", "_http._tcp", "--domain", "example.test.", "--timeout", "3"}, 60);
  EXPECT_EQ(r.exit_status, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("+\tOffice Printer\t_http._tcp.example.test.\t198.51.100.50:631\n"));
  EXPECT_THAT(r.out, HasSubstr("+\tDoor Camera\t_http._tcp.example.test.\t[2001:db8::60]:8554\n"));

  const std::vector<std::string> before = endpoints();
  for (const std::string& endpoint : before)
    EXPECT_NE(std::find(zone.begin(), zone.end(), endpoint), zone.end()) << endpoint;

  // A reloaded zone: the camera's service gone, the printer's port changed.
  // Once the records' TTL has run out the search has asked again.
  lan.dns_remove_service("dns", "Door Camera", "_http._tcp");
  lan.dns_service("dns", {"Office Printer", "_http._tcp", 8631, {"rp=ipp/print"}}, "printer");
  const std::string moved4 = "Office Printer _http._tcp.example.test. 198.51.100.50:8631";
  const std::string moved6 = "Office Printer _http._tcp.example.test. [2001:db8::50]:8631";
  EXPECT_TRUE(wait_until(
      [&] {
        const std::vector<std::string> now = endpoints();
        return count_of(now, kCamera4) == count_of(before, kCamera4) - 1 &&
               count_of(now, kCamera6) == count_of(before, kCamera6) - 1 && count_of(now, moved4) > 0 &&
               count_of(now, moved6) > 0;
      },
      6 * kTtlSeconds + 10))
      << listed(endpoints());
  const std::vector<std::string> after = endpoints();
  EXPECT_EQ(count_of(after, kAdmin4), count_of(before, kAdmin4)) << listed(after);
  EXPECT_EQ(count_of(after, kAdmin6), count_of(before, kAdmin6)) << listed(after);
  EXPECT_TRUE(search->GetRunning());
  search->Stop();
}

}  // namespace
}  // namespace sorvalen::test
