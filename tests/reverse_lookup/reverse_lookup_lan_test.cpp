// The reverse lookup against avahi-daemon on a virtual LAN.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include "netns_scope.h"
#include "sorvalen/dns_reverse_lookup.h"
#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace sorvalen::test {
namespace {

struct Outcome {
  std::mutex mutex;
  std::condition_variable arrived;
  int calls = 0;
  unsigned short id = 0;
  bool ok = false;
  IPAddressV4 record;

  bool wait(std::chrono::seconds limit) {
    std::unique_lock<std::mutex> lock(mutex);
    return arrived.wait_for(lock, limit, [this] { return calls > 0; });
  }
};

TEST(ReverseLookupOnLan, AvahiAnswersWithTheServiceOfTheDevice) {
  SV_REQUIRE_VIRTUAL_LAN();
  VirtualLan lan;
  lan.add_lan();
  lan.add_host("device", {1});
  lan.add_host("querier", {1});
  lan.start_avahi("device", {{"Kitchen Speaker", "_http._tcp", 8080, {"path=/"}}});
  const std::string device_address = lan.host_ipv4("device");

  Outcome outcome;
  DNSReverseLookup* lookup = DNSReverseLookup::CreateDNSReverseLookup();
  lookup->connect([&outcome](unsigned short id, bool ok, IPAddressV4 record) {
    std::lock_guard<std::mutex> lock(outcome.mutex);
    ++outcome.calls;
    outcome.id = id;
    outcome.ok = ok;
    outcome.record = record;
    outcome.arrived.notify_all();
  });
  {
    // The socket and the receiving thread must live in the querier's namespace.
    NetnsScope scope(lan.netns("querier"));
    ASSERT_TRUE(lookup->Init());
    ASSERT_TRUE(lookup->Lookup(0x2121, device_address, "_http._tcp.local"));
  }
  ASSERT_TRUE(outcome.wait(std::chrono::seconds(20)));
  lookup->Destroy();
  lookup->Dispose();

  in_addr expected{};
  inet_pton(AF_INET, device_address.c_str(), &expected);
  EXPECT_EQ(outcome.calls, 1);
  EXPECT_EQ(outcome.id, 0x2121);
  EXPECT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.record.address, expected.s_addr);
  EXPECT_EQ(outcome.record.port, 8080);
  EXPECT_EQ(outcome.record.name, "Kitchen Speaker._http._tcp.local");
}

}  // namespace
}  // namespace sorvalen::test
