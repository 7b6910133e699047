#include "virtual_lan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "avahi_browse_output.h"
#include "virtual_lan_requirement.h"

namespace sorvalen::test {
namespace {

using ::testing::IsEmpty;

const ServiceSpec kTv{"Living Room TV", "_http._tcp", 8008, {"path=/"}};

bool has_service(const std::vector<ResolvedService>& found, const std::string& name,
                 const std::string& address) {
  return std::any_of(found.begin(), found.end(),
                     [&](const ResolvedService& s) { return s.name == name && s.address == address; });
}

bool has_name(const std::vector<ResolvedService>& found, const std::string& name) {
  return std::any_of(found.begin(), found.end(), [&](const ResolvedService& s) { return s.name == name; });
}

const AvahiOptions kBrowsing{true, "", ""};

class VirtualLanTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SV_REQUIRE_VIRTUAL_LAN();
    lan_ = std::make_unique<VirtualLan>();
    lan_->add_lan();
  }

  std::unique_ptr<VirtualLan> lan_;
};

TEST_F(VirtualLanTest, QuerierResolvesDeviceOverIpv4AndIpv6) {
  lan_->add_host("querier", {1});
  lan_->add_host("tv", {1});
  // Characters that need escaping in the daemon's files and in avahi-browse's output.
  const ServiceSpec odd{"Tom & Jerry's <Den>; 2.0", "_http._tcp", 8008, {"a=<&>"}};
  lan_->start_avahi_all({{"tv", {kTv, odd}, {}}, {"querier", {}, kBrowsing}});

  const std::string v4 = lan_->host_ipv4("tv");
  const std::string v6 = lan_->host_ipv6_link_local("tv");
  EXPECT_EQ(v4, "192.0.2.11");
  EXPECT_EQ(v6.rfind("fe80:", 0), 0u) << v6;
  const auto found = lan_->browse_until("querier", "_http._tcp", [&](const auto& f) {
    return has_service(f, kTv.name, v4) && has_service(f, kTv.name, v6) && has_service(f, odd.name, v4);
  });
  EXPECT_TRUE(has_service(found, kTv.name, v4));
  EXPECT_TRUE(has_service(found, kTv.name, v6));
  EXPECT_TRUE(has_service(found, odd.name, v4));
  for (const ResolvedService& s : found) {
    EXPECT_EQ(s.port, 8008);
    EXPECT_EQ(s.host, "tv.local");
  }
}

TEST_F(VirtualLanTest, PublishedServicesAppearAndWithdrawnOnesDisappear) {
  lan_->add_host("querier", {1});
  lan_->add_host("printer", {1});
  const ServiceSpec ipp{"Office Printer", "_ipp._tcp", 631, {"rp=ipp/print"}};
  const ServiceSpec scanner{"Office Scanner", "_ipp._tcp", 8631, {}};
  lan_->start_avahi_all({{"printer", {ipp}, {}}, {"querier", {}, kBrowsing}});
  ASSERT_TRUE(has_name(
      lan_->browse_until("querier", "_ipp._tcp", [&](const auto& f) { return has_name(f, ipp.name); }),
      ipp.name));

  lan_->add_service("printer", scanner);
  EXPECT_TRUE(has_name(
      lan_->browse_until("querier", "_ipp._tcp", [&](const auto& f) { return has_name(f, scanner.name); }),
      scanner.name));

  lan_->remove_service("printer", ipp.name, ipp.type);
  const auto after_removal =
      lan_->browse_until("querier", "_ipp._tcp", [&](const auto& f) { return !has_name(f, ipp.name); });
  EXPECT_FALSE(has_name(after_removal, ipp.name));
  EXPECT_TRUE(has_name(after_removal, scanner.name));
}

TEST_F(VirtualLanTest, StoppingTheDaemonWithdrawsItsServices) {
  lan_->add_host("querier", {1});
  lan_->add_host("printer", {1});
  const ServiceSpec ipp{"Office Printer", "_ipp._tcp", 631, {}};
  lan_->start_avahi_all({{"printer", {ipp}, {}}, {"querier", {}, kBrowsing}});
  ASSERT_TRUE(has_name(
      lan_->browse_until("querier", "_ipp._tcp", [&](const auto& f) { return has_name(f, ipp.name); }),
      ipp.name));

  lan_->stop_avahi("printer");
  EXPECT_THAT(lan_->browse_until("querier", "_ipp._tcp", [](const auto& f) { return f.empty(); }), IsEmpty());
}

TEST_F(VirtualLanTest, HostOnTwoLansSeesBothWhileTheLansStaySeparate) {
  lan_->add_lan();
  lan_->add_host("querier", {1, 2});
  lan_->add_host("tv", {1});
  lan_->add_host("speaker", {2});
  lan_->add_host("neighbour", {2});
  const ServiceSpec speaker{"Kitchen Speaker", "_http._tcp", 80, {}};
  lan_->start_avahi_all({{"tv", {kTv}, {}},
                         {"speaker", {speaker}, {}},
                         {"querier", {}, kBrowsing},
                         {"neighbour", {}, kBrowsing}});

  EXPECT_EQ(lan_->host_ipv4("querier", "eth1"), "198.51.100.10");
  const std::string tv = lan_->host_ipv4("tv");
  const std::string kitchen = lan_->host_ipv4("speaker");
  const auto seen = lan_->browse_until("querier", "_http._tcp", [&](const auto& f) {
    return has_service(f, kTv.name, tv) && has_service(f, speaker.name, kitchen);
  });
  EXPECT_TRUE(has_service(seen, kTv.name, tv));
  EXPECT_TRUE(has_service(seen, speaker.name, kitchen));
  for (const ResolvedService& s : seen)
    EXPECT_EQ(s.interface, s.name == kTv.name ? "eth0" : "eth1");

  const auto neighbour_sees = lan_->browse_until(
      "neighbour", "_http._tcp", [&](const auto& f) { return has_service(f, speaker.name, kitchen); });
  EXPECT_TRUE(has_service(neighbour_sees, speaker.name, kitchen));
  EXPECT_FALSE(has_name(neighbour_sees, kTv.name));
}

TEST_F(VirtualLanTest, CaptureCountsWhatOneSenderSentToPort5353) {
  lan_->add_host("querier", {1});
  lan_->add_host("tv", {1});
  lan_->start_capture("querier");
  lan_->start_avahi("tv", {kTv});  // probes and announcements
  lan_->stop_capture("querier");

  const CaptureCount from_tv = lan_->capture_count("querier", lan_->host_ipv4("tv"));
  const CaptureCount from_tv_v6 = lan_->capture_count("querier", lan_->host_ipv6_link_local("tv"));
  EXPECT_GE(from_tv.packets, 2u);
  EXPECT_GE(from_tv_v6.packets, 2u);
  // Every mDNS message has at least its 12-byte header.
  EXPECT_GE(from_tv.bytes, 12 * from_tv.packets);
  const CaptureCount from_querier = lan_->capture_count("querier", lan_->host_ipv4("querier"));
  EXPECT_EQ(from_querier.packets, 0u);
  EXPECT_EQ(from_querier.bytes, 0u);
}

TEST_F(VirtualLanTest, DestructionRemovesEveryNamespaceAndProcess) {
  lan_->add_host("tv", {1});
  lan_->start_avahi("tv", {kTv});
  const std::string run = lan_->run_name();
  lan_.reset();

  const CommandResult namespaces = run_command({"ip", "netns", "list"});
  ASSERT_TRUE(namespaces.ok());
  EXPECT_EQ(namespaces.out.find(run + "-"), std::string::npos) << namespaces.out;
  const CommandResult daemons = run_command({"pgrep", "-f", "sorvalen-vlan/" + run + "/"});
  EXPECT_EQ(daemons.out, "");
}

}  // namespace
}  // namespace sorvalen::test
