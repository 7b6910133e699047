// One instance's life as the browser tells it, its answers fed by hand to its
// questions on a core that opens no sockets.
#include "browser/instance_tracker.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "browser/core_session.h"
#include "browser/names.h"
#include "platform/test_platform.h"

namespace sorvalen::browser {
namespace {

domainname name(const std::string& text) {
  domainname out{};
  EXPECT_TRUE(name_from_text(text, &out)) << text;
  return out;
}

class InstanceTrackerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mdns::platform_use_test_mode(platform_.get(), nullptr);
    ASSERT_EQ(mDNS_Init(core_.get(), platform_.get(), cache_.get(), 64, mDNSfalse, nullptr, nullptr),
              mStatus_NoError);
    context_ = {core_.get(), &graveyard_};
    ServiceInstance identity;
    identity.name = "Laser";
    tracker_ = std::make_unique<InstanceTracker>(&context_, name("Laser._ipp._tcp.local"), mDNSInterface_Any,
                                                 identity, [this] { ++changes_; });
    ASSERT_TRUE(tracker_->Begin());
  }
  void TearDown() override {
    tracker_.reset();
    graveyard_.Clear();
    mDNS_StartExit(core_.get());
    mDNS_FinalExit(core_.get());
  }

  // An answer of `type` with `data` (SRV: target and port; A: dotted quad; TXT: raw bytes).
  void Answer(uint16_t type, const std::string& owner, const std::string& data, bool added,
              uint16_t port = 0) {
    domainname owner_name = name(owner);
    RData rdata{};
    if (type == kDNSType_SRV) {
      rdata.u.srv.target = name(data);
      rdata.u.srv.port.b[0] = static_cast<uint8_t>(port >> 8);
      rdata.u.srv.port.b[1] = static_cast<uint8_t>(port & 0xff);
    } else if (type == kDNSType_A) {
      ASSERT_EQ(inet_pton(AF_INET, data.c_str(), rdata.u.ipv4.b), 1);
    } else {
      std::memcpy(rdata.u.data, data.data(), data.size());
      rdata.length = static_cast<mDNSu16>(data.size());
    }
    ResourceRecord answer{};
    answer.rrtype = type;
    answer.name = &owner_name;
    answer.rdata = &rdata;
    const int role = type == kDNSType_SRV ? 0 : type == kDNSType_TXT ? 1 : 2;
    tracker_->OnAnswer(role, answer, added);
  }

  // What the tracker tells once everything pending is due (each call a while
  // after the last, so that the pacing never holds an update back).
  std::string Told() {
    ServiceEvent event;
    ServiceInstance instance;
    later_ += 100000;
    if (!tracker_->Collect(monotonic_ms() + later_, &event, &instance))
      return "nothing";
    std::string text = std::string(event == ServiceEvent::kAdded ? "added " : "updated ") + instance.host +
                       ":" + std::to_string(instance.port);
    for (const ServiceAddress& address : instance.addresses)
      text += " " + address.text;
    for (const TxtAttribute& attribute : instance.txt)
      text += " " + attribute.key + "=" + attribute.value;
    return text;
  }

  std::unique_ptr<mDNS> core_ = std::make_unique<mDNS>();
  std::unique_ptr<mDNS_PlatformSupport> platform_ = std::make_unique<mDNS_PlatformSupport>();
  std::unique_ptr<CacheEntity[]> cache_ = std::make_unique<CacheEntity[]>(64);
  QuestionGraveyard graveyard_;
  WatchContext context_;
  std::unique_ptr<InstanceTracker> tracker_;
  int changes_ = 0;
  int64_t later_ = 0;
};

TEST_F(InstanceTrackerTest, AddedWhenCompleteThenUpdatedAsItsTxtAndHostChange) {
  Answer(kDNSType_SRV, "Laser._ipp._tcp.local", "old.local", true, 631);
  Answer(kDNSType_TXT, "Laser._ipp._tcp.local", "\x05rp=q1", true);
  EXPECT_EQ(Told(), "nothing") << "no address yet";
  Answer(kDNSType_A, "old.local", "192.0.2.1", true);
  EXPECT_EQ(Told(), "added old.local.:631 192.0.2.1 rp=q1");
  EXPECT_EQ(Told(), "nothing");

  // A cache-flush replaces the TXT: one update with the new one.
  Answer(kDNSType_TXT, "Laser._ipp._tcp.local", "\x05rp=q2", true);
  Answer(kDNSType_TXT, "Laser._ipp._tcp.local", "\x05rp=q1", false);
  EXPECT_EQ(Told(), "updated old.local.:631 192.0.2.1 rp=q2");

  // A new target: the old host's addresses go, the new host's are asked for.
  Answer(kDNSType_SRV, "Laser._ipp._tcp.local", "new.local", true, 8631);
  Answer(kDNSType_SRV, "Laser._ipp._tcp.local", "old.local", false, 631);
  Answer(kDNSType_A, "new.local", "192.0.2.2", true);
  EXPECT_EQ(Told(), "updated new.local.:8631 192.0.2.2 rp=q2");

  // An address that comes and goes within one burst is no update at all.
  Answer(kDNSType_A, "new.local", "192.0.2.3", true);
  Answer(kDNSType_A, "new.local", "192.0.2.3", false);
  EXPECT_EQ(Told(), "nothing");
  EXPECT_GT(changes_, 0);
}

}  // namespace
}  // namespace sorvalen::browser
