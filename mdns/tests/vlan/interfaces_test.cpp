// Two LANs on two interfaces, interface refreshes, and sharing the port with
// an avahi-daemon on the querier's own host.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

#include "avahi_browse_output.h"
#include "core_on_lan.h"
#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace mdns::vlan_test {
namespace {

using sorvalen::test::AnnouncedService;
using sorvalen::test::VirtualLan;

const AnnouncedService kTv{"Hall TV", "_http._tcp", 8008, {}};

constexpr int kFindMs = 15000;
// Long enough for several queries of a running browse to go unanswered.
constexpr int kQuietMs = 4000;

class TwoLans : public ::testing::Test {
 protected:
  void SetUp() override {
    SV_REQUIRE_VIRTUAL_LAN();
    lan_ = std::make_unique<VirtualLan>();
    lan_->add_lan();
    lan_->add_lan();
    lan_->add_host("querier", {1, 2});
    lan_->add_host("tv", {1});
    lan_->add_host("speaker", {2});
    lan_->start_avahi("tv", {kTv});
    lan_->start_avahi("speaker", {{"Garden Speaker", "_http._tcp", 8080, {}}});
    core_ = std::make_unique<CoreOnLan>(lan_->netns("querier"));
    ASSERT_EQ(core_->status(), mStatus_NoError) << "mDNS_Init";
  }

  std::unique_ptr<VirtualLan> lan_;
  // Outlive the core: its exit stops them.
  Browse any_;
  Browse only_eth1_;
  Resolve tv_;
  std::unique_ptr<CoreOnLan> core_;
};

TEST_F(TwoLans, EachDeviceIsSeenOnItsOwnInterfaceAndABrowseOnOneSeesOnlyThatLan) {
  const mDNSInterfaceID eth0 = core_->interface_id("eth0");
  const mDNSInterfaceID eth1 = core_->interface_id("eth1");
  ASSERT_NE(eth0, eth1);

  ASSERT_EQ(core_->browse(any_, "_http._tcp"), mStatus_NoError);
  ASSERT_EQ(core_->browse(only_eth1_, "_http._tcp", eth1), mStatus_NoError);
  ASSERT_TRUE(core_->run_until(
      [&] {
        return any_.first_add("Hall TV") && any_.first_add("Garden Speaker") &&
               only_eth1_.first_add("Garden Speaker");
      },
      kFindMs));
  EXPECT_EQ(any_.first_add("Hall TV")->interface_id, eth0);
  EXPECT_EQ(any_.first_add("Garden Speaker")->interface_id, eth1);
  core_->run_until([] { return false; }, kQuietMs);
  EXPECT_EQ(only_eth1_.first_add("Hall TV"), nullptr);

  ASSERT_EQ(core_->resolve(tv_, "Hall TV", "_http._tcp", eth0), mStatus_NoError);
  ASSERT_TRUE(core_->run_until([&] { return tv_.first_of(mDNSAddrType_IPv4) != nullptr; }, kFindMs));
  EXPECT_EQ(address_text(tv_.first_of(mDNSAddrType_IPv4)->ip), lan_->host_ipv4("tv"));
}

// Interfaces that go down and up (as Wi-Fi does) or are deleted and made
// again: the core notices by itself, and a running browse goes on.
TEST_F(TwoLans, ABrowseSurvivesInterfacesThatComeAndGo) {
  ASSERT_EQ(core_->browse(any_, "_http._tcp"), mStatus_NoError);
  ASSERT_TRUE(core_->run_until([&] { return any_.first_add("Hall TV") && any_.first_add("Garden Speaker"); },
                               kFindMs));
  const mDNSInterfaceID eth1 = core_->interface_id("eth1");

  ASSERT_TRUE(lan_->exec("querier", {"ip", "link", "set", "eth1", "down"}).ok());
  ASSERT_TRUE(core_->run_until([&] { return any_.removes_of("Garden Speaker") == 1; }, kFindMs));
  EXPECT_EQ(any_.removes_of("Hall TV"), 0);
  ASSERT_TRUE(lan_->exec("querier", {"ip", "link", "set", "eth1", "up"}).ok());
  ASSERT_TRUE(core_->run_until([&] { return any_.adds_of("Garden Speaker") == 2; }, kFindMs));
  EXPECT_EQ(core_->interface_id("eth1"), eth1);

  lan_->command({"recreate-iface", "querier", "eth1"});
  ASSERT_TRUE(core_->run_until([&] { return any_.adds_of("Garden Speaker") == 3; }, kFindMs));
  EXPECT_EQ(any_.removes_of("Garden Speaker"), 2);
  EXPECT_EQ(core_->interface_id("eth1"), eth1);
}

TEST(SharedPort, CoexistsWithAvahiOnTheSameHost) {
  SV_REQUIRE_VIRTUAL_LAN();
  VirtualLan lan;
  lan.add_lan();
  lan.add_host("querier", {1});
  lan.add_host("tv", {1});
  lan.start_avahi("tv", {kTv});
  lan.start_avahi("querier", {}, {/*dbus=*/true});

  CoreOnLan core(lan.netns("querier"));
  ASSERT_EQ(core.status(), mStatus_NoError) << "mDNS_Init beside avahi-daemon";
  Browse browse;
  ASSERT_EQ(core.browse(browse, "_http._tcp"), mStatus_NoError);
  ASSERT_TRUE(core.run_until([&] { return browse.first_add("Hall TV") != nullptr; }, kFindMs));
  // And the daemon beside us still gets its answers.
  const std::string seen_by_daemon = lan.browse("querier", "_http._tcp");
  const auto resolved = sorvalen::test::parse_resolved_services(seen_by_daemon);
  EXPECT_TRUE(std::any_of(resolved.begin(), resolved.end(), [](auto& s) {
    return s.name == "Hall TV" && s.port == 8008;
  })) << seen_by_daemon;
  mDNS_StopQuery(&core.core(), &browse.question);
}

}  // namespace
}  // namespace mdns::vlan_test
