// Browsing and resolving on one virtual LAN, against avahi-daemon.
#include <gtest/gtest.h>
#include <unistd.h>

#include <initializer_list>
#include <memory>
#include <string>

#include "core_on_lan.h"
#include "engine/engine.h"
#include "platform/platform_state.h"
#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace mdns::vlan_test {
namespace {

using sorvalen::test::AnnouncedService;
using sorvalen::test::VirtualLan;

const AnnouncedService kPrinter{"Office Printer", "_ipp._tcp", 631, {"rp=ipp/print"}};
const AnnouncedService kCamera{"Door Camera", "_ipp._tcp", 554, {}};

// Generous: avahi answers within a second; the machine may be busy.
constexpr int kFindMs = 15000;
// A device silent for 10 s is probed twice, a second apart; the rest is margin.
constexpr int kVanishMs = 30000;
constexpr int kQuietAfterMs = 8500;

class BrowseResolveOnLan : public ::testing::Test {
 protected:
  void SetUp() override {
    SV_REQUIRE_VIRTUAL_LAN();
    lan_ = std::make_unique<VirtualLan>();
    lan_->add_lan();
    lan_->add_host("querier", {1});
    lan_->add_host("printer", {1});
    lan_->start_avahi("printer", {kPrinter, {"Office Scanner", "_ipp._tcp", 8631, {}}});
    core_ = std::make_unique<CoreOnLan>(lan_->netns("querier"));
    ASSERT_EQ(core_->status(), mStatus_NoError) << "mDNS_Init";
  }

  std::unique_ptr<VirtualLan> lan_;
  // Outlive the core: its exit stops them.
  Browse browse_;
  Resolve resolve_;
  std::unique_ptr<CoreOnLan> core_;
};

TEST_F(BrowseResolveOnLan, FindsResolvesAndFollowsTheDevice) {
  ASSERT_EQ(core_->browse(browse_, "_ipp._tcp"), mStatus_NoError);
  ASSERT_TRUE(core_->run_until(
      [&] { return browse_.adds_of("Office Printer") && browse_.adds_of("Office Scanner"); }, kFindMs));

  // The answer's additional records complete the resolve: it asks nothing.
  const mDNSu32 queries_before = engine_counters(&core_->core()).queries_sent;
  ASSERT_EQ(core_->resolve(resolve_, "Office Printer", "_ipp._tcp"), mStatus_NoError);
  ASSERT_TRUE(core_->run_until(
      [&] { return resolve_.first_of(mDNSAddrType_IPv4) && resolve_.first_of(mDNSAddrType_IPv6); }, kFindMs));
  EXPECT_EQ(resolve_.queries_sent_at_first_result, queries_before);
  EXPECT_EQ(address_text(resolve_.first_of(mDNSAddrType_IPv4)->ip), lan_->host_ipv4("printer"));
  EXPECT_EQ(address_text(resolve_.first_of(mDNSAddrType_IPv6)->ip), lan_->host_ipv6_link_local("printer"));
  EXPECT_EQ(resolve_.results.size(), 2u) << "each address once";
  const std::string txt(reinterpret_cast<const char*>(resolve_.info.TXTinfo), resolve_.info.TXTlen);
  EXPECT_NE(txt.find("rp=ipp/print"), std::string::npos);

  // The device moves the service to another port: the resolve reports it.
  lan_->add_service("printer", {"Office Printer", "_ipp._tcp", 6310, {"rp=ipp/print"}});
  ASSERT_TRUE(core_->run_until([&] { return resolve_.results.back().port == 6310; }, kFindMs));

  lan_->remove_service("printer", "Office Scanner", "_ipp._tcp");
  ASSERT_TRUE(core_->run_until([&] { return browse_.removes_of("Office Scanner") > 0; }, kFindMs));
  lan_->stop_avahi("printer");
  EXPECT_TRUE(core_->run_until([&] { return browse_.removes_of("Office Printer") > 0; }, kFindMs));
}

// Another host of the link multicasts a goodbye for the lamp's instance; the
// lamp is asked and answers, so the instance stays (avahi-daemon would
// re-announce at once; python3-zeroconf does not).  Then the printer's daemon
// dies without a goodbye (SIGKILL): the probes find it gone, and the lamp,
// answering them, stays.
TEST_F(BrowseResolveOnLan, ForgedGoodbyeKeepsTheDeviceAndADeadOneLeaves) {
  lan_->add_host("lamp", {1});
  lan_->add_service("lamp", {"Desk Lamp", "_ipp._tcp", 9100, {}});
  lan_->command({"start-zeroconf", "lamp"});
  lan_->add_host("forger", {1});
  ASSERT_EQ(core_->browse(browse_, "_ipp._tcp"), mStatus_NoError);
  ASSERT_TRUE(core_->run_until(
      [&] { return browse_.adds_of("Office Printer") && browse_.adds_of("Desk Lamp"); }, kFindMs));

  const char* const kForge = R"(
import socket, sys
def name(text):
    return b"".join(bytes([len(l)]) + l.encode() for l in text.split(".")) + b"\0"
ptr = name("Desk Lamp._ipp._tcp.local")
record = name("_ipp._tcp.local") + bytes([0, 12, 0, 1, 0, 0, 0, 0, 0, len(ptr)]) + ptr
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind(("", 5353))
s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 255)
s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(sys.argv[1]))
s.sendto(bytes([0, 0, 0x84, 0, 0, 0, 0, 1, 0, 0, 0, 0]) + record, ("224.0.0.251", 5353))
)";
  // Once the answers to the browse's first queries are over (the next query
  // comes 8 s after the fourth), only the lamp's answer to the probe can keep
  // the instance.
  core_->run_until([] { return false; }, kQuietAfterMs);
  const mDNSu32 probes_before = engine_counters(&core_->core()).probes_sent;
  const auto forged = lan_->exec("forger", {"python3", "-c", kForge, lan_->host_ipv4("forger")});
  ASSERT_TRUE(forged.ok()) << forged.err;
  ASSERT_TRUE(
      core_->run_until([&] { return engine_counters(&core_->core()).probes_sent > probes_before; }, kFindMs));
  core_->run_until([] { return false; }, 2000);  // past the goodbye's second
  EXPECT_EQ(browse_.removes_of("Desk Lamp"), 0);

  lan_->command({"kill-avahi", "printer"});
  EXPECT_TRUE(core_->run_until(
      [&] { return browse_.removes_of("Office Printer") && browse_.removes_of("Office Scanner"); },
      kVanishMs));
  EXPECT_EQ(browse_.removes_of("Desk Lamp"), 0);
}

// A device without a DHCP server answers from 169.254/16, outside the querier's subnet.
TEST_F(BrowseResolveOnLan, FindsADeviceWithALinkLocalAddress) {
  lan_->add_host("camera", {1});
  lan_->command({"set-ipv4", "camera", "eth0", "169.254.20.20/16"});
  lan_->start_avahi("camera", {kCamera});
  ASSERT_EQ(core_->browse(browse_, "_ipp._tcp"), mStatus_NoError);
  ASSERT_TRUE(core_->run_until([&] { return browse_.adds_of("Door Camera") > 0; }, kFindMs));
  ASSERT_EQ(core_->resolve(resolve_, "Door Camera", "_ipp._tcp"), mStatus_NoError);
  ASSERT_TRUE(core_->run_until([&] { return resolve_.first_of(mDNSAddrType_IPv4) != nullptr; }, kFindMs));
  EXPECT_EQ(address_text(resolve_.first_of(mDNSAddrType_IPv4)->ip), "169.254.20.20");
}

// Responders differ in what they answer and when; python3-zeroconf beside avahi-daemon.
TEST_F(BrowseResolveOnLan, FindsAndResolvesAZeroconfResponderBesideAvahi) {
  lan_->add_host("lamp", {1});
  lan_->add_service("lamp", {"Desk Lamp", "_ipp._tcp", 9100, {}});
  lan_->command({"start-zeroconf", "lamp"});
  ASSERT_EQ(core_->browse(browse_, "_ipp._tcp"), mStatus_NoError);
  ASSERT_TRUE(core_->run_until(
      [&] { return browse_.adds_of("Desk Lamp") && browse_.adds_of("Office Printer"); }, kFindMs));
  ASSERT_EQ(core_->resolve(resolve_, "Desk Lamp", "_ipp._tcp"), mStatus_NoError);
  ASSERT_TRUE(core_->run_until([&] { return resolve_.first_of(mDNSAddrType_IPv4) != nullptr; }, kFindMs));
  EXPECT_EQ(resolve_.first_of(mDNSAddrType_IPv4)->port, 9100);
  EXPECT_EQ(address_text(resolve_.first_of(mDNSAddrType_IPv4)->ip), lan_->host_ipv4("lamp"));
}

// With the other family's socket closed, each family alone finds and resolves the device.
class OneFamilyOnLan : public BrowseResolveOnLan, public ::testing::WithParamInterface<int> {};

TEST_P(OneFamilyOnLan, FindsAndResolvesTheDevice) {
  const int family = GetParam();
  PlatformState& p = platform_of(&core_->core());
  const bool v4 = family == mDNSAddrType_IPv4;
  for (int* other : {v4 ? &p.sock_v6 : &p.sock_v4, v4 ? &p.one_shot_v6 : &p.one_shot_v4}) {
    close(*other);
    *other = -1;
  }
  ASSERT_EQ(core_->browse(browse_, "_ipp._tcp"), mStatus_NoError);
  ASSERT_TRUE(core_->run_until([&] { return browse_.adds_of("Office Printer") > 0; }, kFindMs));
  EXPECT_EQ(browse_.events.front().interface_id, core_->interface_id("eth0"));
  ASSERT_EQ(core_->resolve(resolve_, "Office Printer", "_ipp._tcp"), mStatus_NoError);
  ASSERT_TRUE(core_->run_until([&] { return resolve_.first_of(family) != nullptr; }, kFindMs));
  EXPECT_EQ(resolve_.first_of(family)->port, 631);
  EXPECT_EQ(address_text(resolve_.first_of(family)->ip),
            family == mDNSAddrType_IPv4 ? lan_->host_ipv4("printer") : lan_->host_ipv6_link_local("printer"));
}

INSTANTIATE_TEST_SUITE_P(Families, OneFamilyOnLan, ::testing::Values(mDNSAddrType_IPv4, mDNSAddrType_IPv6),
                         ::testing::PrintToStringParamName());

}  // namespace
}  // namespace mdns::vlan_test
