// The interface argument: exact names only, and a named one limits the search.
#include "lan_search_fixture.h"

namespace sorvalen::test {
namespace {

using InterfaceChoiceTest = LanSearchTest;

TEST_F(InterfaceChoiceTest, UnknownOrInexactNameFailsWithoutALoop) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({{"Living Room TV", "_http._tcp", 8080, {}}});
  StartQuerier();
  for (const char* name : {"eth9", "ETH0", "eth", "eth0 "}) {
    SCOPED_TRACE(name);
    EXPECT_FALSE(search_->Start(",", "_http._tcp", "local.", 0, name));
    EXPECT_FALSE(search_->GetRunning());
  }
  search_->Stop();
  // A failed Start leaves the object usable.
  ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, "eth0"));
  EXPECT_TRUE(wait_until([] { return take_snapshot().v4_count("Living Room TV") > 0; }, kFindSeconds));
}

TEST_F(InterfaceChoiceTest, NamedInterfaceLimitsTheSearchToItsLink) {
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

  ASSERT_TRUE(search_->Start("camera", "_rtsp._tcp", "local.", 0, "eth1"));
  ASSERT_TRUE(wait_until([] { return take_snapshot().v4_count("Far Camera") > 0; }, kFindSeconds));
  const Snapshot s = Settled();
  EXPECT_FALSE(s.has("Near Camera"));
  const uint32_t far = ipv4_network_order(lan_->host_ipv4("far"));
  for (const IPAddressV4& record : s.v4)
    EXPECT_EQ(record.address, far);

  // Every interface: both cameras.
  ASSERT_TRUE(search_->Start("camera", "_rtsp._tcp", "local.", 0, ""));
  EXPECT_TRUE(wait_until(
      [] {
        const Snapshot now = take_snapshot();
        return now.v4_count("Far Camera") && now.v4_count("Near Camera");
      },
      kFindSeconds));
}

}  // namespace
}  // namespace sorvalen::test
