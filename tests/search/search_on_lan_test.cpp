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

using SearchOnLanTest = LanSearchTest;

TEST_F(SearchOnLanTest, RecordsCarryAddressesPortsAndNamesInTheirByteOrders) {
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
  const bool found = wait_until(
      [] {
        const Snapshot s = take_snapshot();
        return s.v4_count("Living Room TV") && s.v4_count("Kitchen Speaker") &&
               s.v6_count("Living Room TV") && s.v6_count("Kitchen Speaker");
      },
      kFindSeconds);
  reading = false;
  reader.join();
  ASSERT_TRUE(found);

  const Snapshot s = take_snapshot();
  const uint32_t dev_v4 = ipv4_network_order(lan_->host_ipv4("dev"));
  const std::vector<uint16_t> dev_v6 = ipv6_groups(lan_->host_ipv6_link_local("dev"));
  for (const IPAddressV4& record : s.v4) {
    SCOPED_TRACE(record.name);
    EXPECT_EQ(record.address, dev_v4);
    EXPECT_EQ(record.type, "_http._tcp.");
    EXPECT_EQ(record.domain, "local.");
    EXPECT_EQ(record.port, record.name == "Living Room TV" ? 8080 : 80);
    EXPECT_NE(record.name, "Shell Box");
  }
  for (const IPAddressV6& record : s.v6) {
    SCOPED_TRACE(record.name);
    EXPECT_EQ(std::vector<uint16_t>(record.address, record.address + 8), dev_v6);
    EXPECT_EQ(record.type, "_http._tcp.");
    EXPECT_EQ(record.domain, "local.");
    EXPECT_EQ(record.port, record.name == "Living Room TV" ? 8080 : 80);
  }
  search_->Stop();
  EXPECT_FALSE(search_->GetRunning());
  EXPECT_FALSE(take_snapshot().v4.empty()) << "Stop keeps what was found";
}

TEST_F(SearchOnLanTest, FilterWordsMatchAnywhereIgnoringCase) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({kTv, kSpeaker, kPrinter});
  StartQuerier();
  // Only the second word matches, and only inside the name, in another case.
  ASSERT_TRUE(search_->Start("zzz,ICE PRINT", "_http._tcp", "local.", 0, ""));
  ASSERT_TRUE(wait_until([] { return take_snapshot().v4_count("Office Printer") > 0; }, kFindSeconds));
  const Snapshot s = Settled();
  EXPECT_FALSE(s.has("Living Room TV"));
  EXPECT_FALSE(s.has("Kitchen Speaker"));
}

TEST_F(SearchOnLanTest, EmptyFilterFindsNothingAndTimeLimitEndsTheLoop) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({kTv, kSpeaker});
  StartQuerier();
  ASSERT_TRUE(search_->Start("", "_http._tcp", "local.", 2, ""));
  // The limit ends the loop after 2 to about 3 seconds of whole-second clock.
  ASSERT_TRUE(wait_until([&] { return !search_->GetRunning(); }, 15));
  const Snapshot s = take_snapshot();
  EXPECT_TRUE(s.v4.empty());
  EXPECT_TRUE(s.v6.empty());

  // A new Start after the limit begins afresh, now with every instance.
  ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, ""));
  EXPECT_TRUE(search_->GetRunning());
  EXPECT_TRUE(wait_until(
      [] {
        const Snapshot now = take_snapshot();
        return now.v4_count("Living Room TV") && now.v4_count("Kitchen Speaker");
      },
      kFindSeconds));
  EXPECT_TRUE(search_->GetRunning());
}

TEST_F(SearchOnLanTest, WithdrawnDeviceLeavesTheListsWhileTheSearchRuns) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({kTv, kSpeaker});
  StartQuerier();
  ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, ""));
  ASSERT_TRUE(wait_until(
      [] {
        const Snapshot s = take_snapshot();
        return s.v4_count("Kitchen Speaker") && s.v6_count("Kitchen Speaker") && s.v4_count("Living Room TV");
      },
      kFindSeconds));
  // Each address answer adds a record; a withdrawal takes one of each family.
  const Snapshot before = Settled();
  lan_->remove_service("dev", "Kitchen Speaker", "_http._tcp");
  EXPECT_TRUE(wait_until(
      [&] {
        const Snapshot s = take_snapshot();
        return s.v4_count("Kitchen Speaker") == before.v4_count("Kitchen Speaker") - 1 &&
               s.v6_count("Kitchen Speaker") == before.v6_count("Kitchen Speaker") - 1;
      },
      kFindSeconds));
  const Snapshot after = take_snapshot();
  EXPECT_EQ(after.v4_count("Living Room TV"), before.v4_count("Living Room TV"));
  EXPECT_TRUE(search_->GetRunning());
}

TEST_F(SearchOnLanTest, StartWhileSearchingBeginsANewSearch) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({kTv, kSsh});
  StartQuerier();
  ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, ""));
  ASSERT_TRUE(wait_until([] { return take_snapshot().v4_count("Living Room TV") > 0; }, kFindSeconds));

  ASSERT_TRUE(search_->Start(",", "_ssh._tcp", "local.", 0, ""));
  EXPECT_TRUE(search_->GetRunning());
  EXPECT_FALSE(take_snapshot().has("Living Room TV")) << "the lists were emptied";
  ASSERT_TRUE(wait_until([] { return take_snapshot().v4_count("Shell Box") > 0; }, kFindSeconds));
  for (const IPAddressV4& record : take_snapshot().v4)
    EXPECT_EQ(record.type, "_ssh._tcp.");
}

TEST_F(SearchOnLanTest, StopRightAfterStartAndStopTwice) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({kTv});
  StartQuerier();
  ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, ""));
  const auto before = std::chrono::steady_clock::now();
  search_->Stop();
  const auto took = std::chrono::steady_clock::now() - before;
  EXPECT_FALSE(search_->GetRunning());
  EXPECT_GE(took, std::chrono::milliseconds(250)) << "Stop waits for the loop's pass";
  search_->Stop();
  EXPECT_FALSE(search_->GetRunning());

  // The core is still usable afterwards.
  ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, ""));
  EXPECT_TRUE(wait_until([] { return take_snapshot().v4_count("Living Room TV") > 0; }, kFindSeconds));
}

TEST_F(SearchOnLanTest, SecondSearchAfterDestroyAndInit) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({kTv});
  StartQuerier();
  ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, ""));
  ASSERT_TRUE(wait_until([] { return take_snapshot().v4_count("Living Room TV") > 0; }, kFindSeconds));
  search_->Stop();
  search_->Destroy();
  EXPECT_FALSE(search_->Start(",", "_http._tcp", "local.", 0, "")) << "no core after Destroy";
  EXPECT_FALSE(search_->RefreshInterfaces());

  ASSERT_TRUE(search_->Init());
  EXPECT_TRUE(search_->RefreshInterfaces());
  ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, ""));
  EXPECT_TRUE(wait_until([] { return take_snapshot().v4_count("Living Room TV") > 0; }, kFindSeconds));
}

}  // namespace
}  // namespace sorvalen::test
