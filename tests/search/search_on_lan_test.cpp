// Whole searches on a virtual LAN: what an application sees in the lists.
#include <atomic>
#include <thread>

#include "lan_search_fixture.h"

namespace sorvalen::test {
namespace {

const ServiceSpec kTv{"Living Room TV", "_http._tcp", 8080, {"path=/"}};
const ServiceSpec kSpeaker{"Kitchen Speaker", "_http._tcp", 80, {}};
const ServiceSpec kPrinter{"Office Printer", "_http._tcp", 631, {}};
const ServiceSpec kSsh{"Shell Box", "_ssh._tcp", 22, {}};

uint32_t ipv4_network_order(const std::string& text) {
  in_addr address{};
  EXPECT_EQ(inet_pton(AF_INET, text.c_str(), &address), 1) << text;
  return address.s_addr;
}

std::vector<uint16_t> ipv6_groups(const std::string& text) {
  unsigned char bytes[16] = {};
  EXPECT_EQ(inet_pton(AF_INET6, text.substr(0, text.find('%')).c_str(), bytes), 1) << text;
  std::vector<uint16_t> groups;
  for (int i = 0; i < 8; ++i)
    groups.push_back(static_cast<uint16_t>(bytes[2 * i] << 8 | bytes[2 * i + 1]));
  return groups;
}

using SearchOnLanTest = LanSearchTest;

TEST_F(SearchOnLanTest, RecordsCarryByteOrdersAndTextsAndAWithdrawnDeviceLeaves) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({kTv, kSpeaker, kSsh});
  StartQuerier();
  ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, ""));
  EXPECT_TRUE(search_->GetRunning());

  // An application thread reads the lists under the lock while the search runs.
  std::atomic<bool> reading{true};
  std::thread reader([&] {
    for (int i = 0; i < 4000 && reading; ++i) {
      take_snapshot();
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });
  const bool found = wait_until([] {
    const Snapshot s = take_snapshot();
    return s.v4_count("Living Room TV") && s.v4_count("Kitchen Speaker") && s.v6_count("Living Room TV") &&
           s.v6_count("Kitchen Speaker");
  });
  reading = false;
  reader.join();
  ASSERT_TRUE(found);

  const Snapshot before = Settled();
  const uint32_t dev_v4 = ipv4_network_order(lan_->host_ipv4("dev"));
  const std::vector<uint16_t> dev_v6 = ipv6_groups(lan_->host_ipv6_link_local("dev"));
  for (const IPAddressV4& record : before.v4) {
    SCOPED_TRACE(record.name);
    EXPECT_EQ(record.address, dev_v4);
    EXPECT_EQ(record.type, "_http._tcp.");
    EXPECT_EQ(record.domain, "local.");
    EXPECT_EQ(record.port, record.name == "Living Room TV" ? 8080 : 80);
    EXPECT_NE(record.name, "Shell Box");
  }
  for (const IPAddressV6& record : before.v6) {
    SCOPED_TRACE(record.name);
    EXPECT_EQ(std::vector<uint16_t>(record.address, record.address + 8), dev_v6);
    EXPECT_EQ(record.type, "_http._tcp.");
    EXPECT_EQ(record.domain, "local.");
    EXPECT_EQ(record.port, record.name == "Living Room TV" ? 8080 : 80);
  }

  // Each address answer adds a record; a withdrawal takes one of each family.
  lan_->remove_service("dev", "Kitchen Speaker", "_http._tcp");
  EXPECT_TRUE(wait_until([&] {
    const Snapshot s = take_snapshot();
    return s.v4_count("Kitchen Speaker") == before.v4_count("Kitchen Speaker") - 1 &&
           s.v6_count("Kitchen Speaker") == before.v6_count("Kitchen Speaker") - 1;
  }));
  EXPECT_EQ(take_snapshot().v4_count("Living Room TV"), before.v4_count("Living Room TV"));
  EXPECT_TRUE(search_->GetRunning());
  search_->Stop();
  EXPECT_FALSE(search_->GetRunning());
  EXPECT_TRUE(take_snapshot().has("Living Room TV")) << "Stop keeps what was found";
}

TEST_F(SearchOnLanTest, FilterAsAUserMeetsItAndTheTimeLimit) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({kTv, kSpeaker, kPrinter});
  StartQuerier();
  // An empty filter finds nothing; the limit ends the loop after 2 to about 3
  // seconds of whole-second clock.
  ASSERT_TRUE(search_->Start("", "_http._tcp", "local.", 2, ""));
  ASSERT_TRUE(wait_until([&] { return !search_->GetRunning(); }, 15));
  EXPECT_TRUE(take_snapshot().v4.empty());
  EXPECT_TRUE(take_snapshot().v6.empty());

  // A new Start after the limit begins afresh.  Only the second word matches,
  // and only inside the name, in another case.
  ASSERT_TRUE(search_->Start("zzz,ICE PRINT", "_http._tcp", "local.", 0, ""));
  EXPECT_TRUE(search_->GetRunning());
  ASSERT_TRUE(found_v4({"Office Printer"}));
  const Snapshot s = Settled();
  EXPECT_FALSE(s.has("Living Room TV"));
  EXPECT_FALSE(s.has("Kitchen Speaker"));

  // A lone comma admits every instance.
  ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, ""));
  EXPECT_TRUE(found_v4({"Living Room TV", "Kitchen Speaker", "Office Printer"}));
}

TEST_F(SearchOnLanTest, StartStopAndInitInAnyOrderLeaveTheSearchUsable) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({kTv, kSsh});
  StartQuerier();
  ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, ""));
  ASSERT_TRUE(found_v4({"Living Room TV"}));

  // Start while searching begins a new search with emptied lists.
  ASSERT_TRUE(search_->Start(",", "_ssh._tcp", "local.", 0, ""));
  EXPECT_TRUE(search_->GetRunning());
  EXPECT_FALSE(take_snapshot().has("Living Room TV"));
  ASSERT_TRUE(found_v4({"Shell Box"}));
  for (const IPAddressV4& record : take_snapshot().v4)
    EXPECT_EQ(record.type, "_ssh._tcp.");

  // Stop right after Start waits for the loop's pass; a second Stop is harmless.
  ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, ""));
  const auto before = std::chrono::steady_clock::now();
  search_->Stop();
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(250));
  EXPECT_FALSE(search_->GetRunning());
  search_->Stop();
  EXPECT_FALSE(search_->GetRunning());

  search_->Destroy();
  EXPECT_FALSE(search_->Start(",", "_http._tcp", "local.", 0, "")) << "no core after Destroy";
  EXPECT_FALSE(search_->RefreshInterfaces());
  ASSERT_TRUE(search_->Init());
  EXPECT_TRUE(search_->RefreshInterfaces());
  ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, ""));
  EXPECT_TRUE(found_v4({"Living Room TV"}));
}

TEST_F(SearchOnLanTest, OnlyAnExactInterfaceNameIsAcceptedAndItLimitsTheSearchToItsLink) {
  SV_REQUIRE_VIRTUAL_LAN();
  lan_.emplace();
  lan_->add_lan();
  lan_->add_lan();
  lan_->add_host("querier", {1, 2});  // eth0 on LAN 1, eth1 on LAN 2
  lan_->add_host("near", {1});
  lan_->add_host("far", {2});
  lan_->start_avahi("near", {{"Near Camera", "_rtsp._tcp", 554, {}}});
  lan_->start_avahi("far", {{"Far Camera", "_rtsp._tcp", 554, {}}});
  StartQuerier();
  for (const char* name : {"eth9", "ETH1", "eth", "eth1 "}) {
    SCOPED_TRACE(name);
    EXPECT_FALSE(search_->Start("camera", "_rtsp._tcp", "local.", 0, name));
    EXPECT_FALSE(search_->GetRunning());
  }

  ASSERT_TRUE(search_->Start("camera", "_rtsp._tcp", "local.", 0, "eth1"));
  ASSERT_TRUE(found_v4({"Far Camera"}));
  const Snapshot s = Settled();
  EXPECT_FALSE(s.has("Near Camera"));
  const uint32_t far = ipv4_network_order(lan_->host_ipv4("far"));
  for (const IPAddressV4& record : s.v4)
    EXPECT_EQ(record.address, far);

  ASSERT_TRUE(search_->Start("camera", "_rtsp._tcp", "local.", 0, ""));
  EXPECT_TRUE(found_v4({"Far Camera", "Near Camera"}));
}

}  // namespace
}  // namespace sorvalen::test
