// The reverse lookup against avahi-daemon on a virtual LAN.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>

#include "netns_scope.h"
#include "sorvalen/dns_reverse_lookup.h"
#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace sorvalen::test {
namespace {

struct Outcome {
  unsigned short id;
  bool ok;
  IPAddressV4 record;
};

TEST(ReverseLookupOnLan, AvahiAnswersWithTheServiceOfTheDevice) {
  SV_REQUIRE_VIRTUAL_LAN();
  VirtualLan lan;
  lan.add_lan();
  lan.add_host("device", {1});
  lan.add_host("querier", {1});
  lan.start_avahi("device", {{"Kitchen Speaker", "_http._tcp", 8080, {"path=/"}}});
  const std::string device_address = lan.host_ipv4("device");

  std::promise<Outcome> outcome;
  std::future<Outcome> arrived = outcome.get_future();
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
  const bool answered = arrived.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  lookup->Dispose();
  ASSERT_TRUE(answered);

  const Outcome result = arrived.get();
  in_addr expected{};
  inet_pton(AF_INET, device_address.c_str(), &expected);
  EXPECT_EQ(result.id, 0x2121);
  EXPECT_TRUE(result.ok);
  EXPECT_EQ(result.record.address, expected.s_addr);
  EXPECT_EQ(result.record.port, 8080);
  EXPECT_EQ(result.record.name, "Kitchen Speaker._http._tcp.local");
}

}  // namespace
}  // namespace sorvalen::test
