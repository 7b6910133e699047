// The reverse lookup against avahi-daemon on a virtual LAN.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <tuple>

#include "netns_scope.h"
#include "sorvalen/dns_reverse_lookup.h"
#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace sorvalen::test {
namespace {

TEST(ReverseLookupOnLan, AvahiAnswersWithTheServiceOfTheDevice) {
  SV_REQUIRE_VIRTUAL_LAN();
  VirtualLan lan;
  lan.add_lan();
  lan.add_host("device", {1});
  lan.add_host("querier", {1});
  lan.start_avahi("device", {{"Kitchen Speaker", "_http._tcp", 8080, {"path=/"}}});
  const std::string device_address = lan.host_ipv4("device");

  using Outcome = std::tuple<unsigned short, bool, IPAddressV4>;
  std::promise<Outcome> outcome;
  DNSReverseLookup* lookup = DNSReverseLookup::CreateDNSReverseLookup();
  lookup->connect([&outcome](unsigned short id, bool ok, IPAddressV4 record) {
    outcome.set_value({id, ok, record});
  });
  {
    // The socket and the receiving thread must live in the querier's namespace.
    NetnsScope scope(lan.netns("querier"));
    ASSERT_TRUE(lookup->Init());
    ASSERT_TRUE(lookup->Lookup(0x2121, device_address, "_http._tcp.local"));
  }
  std::future<Outcome> arrived = outcome.get_future();
  const bool answered = arrived.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  lookup->Dispose();
  ASSERT_TRUE(answered);
  const auto [id, ok, record] = arrived.get();
  in_addr expected{};
  inet_pton(AF_INET, device_address.c_str(), &expected);
  EXPECT_EQ(id, 0x2121);
  EXPECT_TRUE(ok);
  EXPECT_EQ(record.address, expected.s_addr);
  EXPECT_EQ(record.port, 8080);
  EXPECT_EQ(record.name, "Kitchen Speaker._http._tcp.local");
}

}  // namespace
}  // namespace sorvalen::test
