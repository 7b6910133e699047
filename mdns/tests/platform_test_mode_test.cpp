// The platform in test mode: synthetic interfaces, captured sends, the
// descriptor-set calls without sockets, and interface refreshes reaching the
// engine.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "engine.h"
#include "platform.h"

namespace mdns {
namespace {

struct Sent {
  mDNSInterfaceID interface_id;
  int family;
  size_t length;
};

void capture_send(void* context, mDNSInterfaceID interface_id, int family, const uint8_t*, size_t length) {
  static_cast<std::vector<Sent>*>(context)->push_back({interface_id, family, length});
}

struct BrowseEvents {
  int adds = 0;
  int removes = 0;
};

void on_browse(mDNS* const, DNSQuestion* question, const ResourceRecord* const, QC_result add) {
  auto* events = static_cast<BrowseEvents*>(question->QuestionContext);
  (add == QC_add ? events->adds : events->removes)++;
}

// "_http._tcp.local" PTR "Printer._http._tcp.local", TTL 120, as a response.
std::vector<uint8_t> browse_response() {
  std::vector<uint8_t> m = {0, 0, 0x84, 0, 0, 0, 0, 1, 0, 0, 0, 0};
  const uint8_t owner[] = {5, '_', 'h', 't', 't', 'p', 4, '_', 't', 'c', 'p', 5, 'l', 'o', 'c', 'a', 'l', 0};
  m.insert(m.end(), owner, owner + sizeof owner);
  const uint8_t fixed[] = {0, 12, 0, 1, 0, 0, 0, 120, 0, 10};
  m.insert(m.end(), fixed, fixed + sizeof fixed);
  const uint8_t target[] = {7, 'P', 'r', 'i', 'n', 't', 'e', 'r', 0xC0, 12};
  m.insert(m.end(), target, target + sizeof target);
  return m;
}

mDNSIPPort mdns_port() {
  mDNSIPPort port;
  port.b[0] = 0x14;
  port.b[1] = 0xE9;
  return port;
}

class TestModePlatform : public ::testing::Test {
 protected:
  void SetUp() override {
    p = std::make_unique<mDNS_PlatformSupport>();
    m = std::make_unique<mDNS>();
    cache.resize(32);
    p->test_mode = 1;
    ASSERT_TRUE(platform_test_add_interface(p.get(), "eth0", 2, "192.0.2.10", "255.255.255.0"));
    ASSERT_TRUE(platform_test_add_address(p.get(), 2, "fe80::10", 64));
    ASSERT_TRUE(platform_test_add_interface(p.get(), "eth1", 3, "198.51.100.10", "255.255.255.0"));
    platform_set_send_hook(p.get(), capture_send, &sent);
  }

  void TearDown() override { mDNS_FinalExit(m.get()); }

  void init() {
    ASSERT_EQ(mDNS_Init(m.get(), p.get(), cache.data(), static_cast<mDNSu32>(cache.size()), mDNSfalse,
                        nullptr, nullptr),
              mStatus_NoError);
  }

  std::vector<std::string> listed() const {
    std::vector<std::string> names;
    for (const NetworkInterfaceInfo* i = m->HostInterfaces; i != nullptr; i = i->next) {
      names.emplace_back(i->ifname);
    }
    return names;
  }

  std::unique_ptr<mDNS_PlatformSupport> p;
  std::unique_ptr<mDNS> m;
  std::vector<CacheEntity> cache;
  std::vector<Sent> sent;
};

TEST_F(TestModePlatform, ListsTheSyntheticInterfacesWithoutSockets) {
  init();
  EXPECT_EQ(listed(), (std::vector<std::string>{"eth0", "eth1"}));
  EXPECT_EQ(p->sock_v4, -1);
  EXPECT_EQ(p->sock_v6, -1);
  const NetworkInterfaceInfo* eth1 = platform_interface(m.get(), platform_interface_id(3));
  ASSERT_NE(eth1, nullptr);
  EXPECT_TRUE(eth1->v4usable);
  EXPECT_FALSE(eth1->v6usable);

  fd_set readfds;
  FD_ZERO(&readfds);
  int nfds = 0;
  timeval timeout{5, 0};
  mDNSPosixGetFDSet(m.get(), &nfds, &readfds, &timeout);
  EXPECT_EQ(nfds, 0);
  EXPECT_LE(timeout.tv_sec, 5);
}

TEST_F(TestModePlatform, SendsGoToTheHookAndAreCountedOnce) {
  init();
  const uint8_t message[12] = {};
  EXPECT_TRUE(platform_send(m.get(), platform_interface_id(2), mDNSAddrType_IPv6, message, sizeof message));
  EXPECT_TRUE(platform_send(m.get(), platform_interface_id(3), mDNSAddrType_IPv4, message, sizeof message));
  // eth1 has no IPv6 address; index 9 is not an interface of ours.
  EXPECT_FALSE(platform_send(m.get(), platform_interface_id(3), mDNSAddrType_IPv6, message, sizeof message));
  EXPECT_FALSE(platform_send(m.get(), platform_interface_id(9), mDNSAddrType_IPv4, message, sizeof message));
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].interface_id, platform_interface_id(2));
  EXPECT_EQ(sent[0].family, mDNSAddrType_IPv6);
  EXPECT_EQ(m->counters.packets_sent, 2u);
  EXPECT_EQ(m->counters.bytes_sent, 24u);
}

TEST_F(TestModePlatform, OnLinkMeansTheArrivalInterfacesSubnets) {
  ASSERT_TRUE(platform_test_add_address(p.get(), 3, "203.0.113.10", 24));
  init();
  mDNSAddr source{};
  source.type = mDNSAddrType_IPv4;
  const uint8_t on_eth1_second[] = {203, 0, 113, 99};
  std::memcpy(source.ip.v4.b, on_eth1_second, 4);
  EXPECT_TRUE(platform_source_on_link(m.get(), platform_interface_id(3), source));
  EXPECT_FALSE(platform_source_on_link(m.get(), platform_interface_id(2), source));
  EXPECT_FALSE(platform_source_on_link(m.get(), platform_interface_id(9), source));
}

TEST_F(TestModePlatform, ARemovedInterfaceTakesItsAnswersAlongAtRefresh) {
  init();
  BrowseEvents events;
  DNSQuestion question{};
  domainname type{};
  domainname domain{};
  ASSERT_NE(MakeDomainNameFromDNSNameString(&type, "_http._tcp"), nullptr);
  ASSERT_NE(MakeDomainNameFromDNSNameString(&domain, "local."), nullptr);
  ASSERT_EQ(
      mDNS_StartBrowse(m.get(), &question, &type, &domain, mDNSInterface_Any, mDNSfalse, on_browse, &events),
      mStatus_NoError);

  const std::vector<uint8_t> response = browse_response();
  mDNSAddr source{};
  source.type = mDNSAddrType_IPv4;
  const uint8_t device[] = {198, 51, 100, 77};
  std::memcpy(source.ip.v4.b, device, 4);
  engine_receive(m.get(), response.data(), response.size(), source, mdns_port(), platform_interface_id(3),
                 engine_now(m.get()));
  mDNSPosixProcessFDSet(m.get(), nullptr);
  EXPECT_EQ(events.adds, 1);

  ASSERT_TRUE(platform_test_remove_interface(p.get(), 3));
  EXPECT_EQ(mDNSPlatformPosixRefreshInterfaceList(m.get()), mStatus_NoError);
  EXPECT_EQ(listed(), std::vector<std::string>{"eth0"});
  EXPECT_EQ(events.removes, 1);
  mDNS_StopQuery(m.get(), &question);
}

TEST_F(TestModePlatform, RefreshNeedsARunningCoreAndTheListSurvivesARestart) {
  EXPECT_EQ(mDNSPlatformPosixRefreshInterfaceList(m.get()), mStatus_NotInitializedErr);
  init();
  mDNS_FinalExit(m.get());
  EXPECT_EQ(m->HostInterfaces, nullptr);
  EXPECT_EQ(mDNSPlatformPosixRefreshInterfaceList(m.get()), mStatus_NotInitializedErr);
  init();
  EXPECT_EQ(listed(), (std::vector<std::string>{"eth0", "eth1"}));
}

TEST_F(TestModePlatform, SyntheticInterfacesRejectBadInput) {
  EXPECT_FALSE(platform_test_add_interface(p.get(), "eth5", 0, "192.0.2.1", "255.255.255.0"));
  EXPECT_FALSE(platform_test_add_interface(p.get(), "eth5", 5, "not-an-address", "255.255.255.0"));
  EXPECT_FALSE(platform_test_add_interface(p.get(), "eth5", 5, "192.0.2.1", "255.0.255.0"));
  EXPECT_FALSE(platform_test_add_address(p.get(), 42, "192.0.2.1", 24));
  EXPECT_FALSE(platform_test_remove_interface(p.get(), 42));
  EXPECT_FALSE(platform_test_remove_interface(p.get(), 0));
  // A replaced interface keeps one entry.
  EXPECT_TRUE(platform_test_add_interface(p.get(), "eth0", 2, "192.0.2.20", "255.255.255.0"));
  init();
  EXPECT_EQ(listed(), (std::vector<std::string>{"eth0", "eth1"}));
}

TEST(PlatformClock, IsMonotonicAndSeedsDiffer) {
  const int32_t a = platform_now_ms();
  const int32_t b = platform_now_ms();
  EXPECT_GE(static_cast<int32_t>(static_cast<uint32_t>(b) - static_cast<uint32_t>(a)), 0);
  // Two 32-bit seeds from the kernel's generator coincide with negligible odds.
  EXPECT_NE(platform_random_seed(), platform_random_seed());
}

}  // namespace
}  // namespace mdns
