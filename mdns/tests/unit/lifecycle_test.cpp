// Starting and stopping: what the calls accept, refuse, and survive.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "engine/engine.h"
#include "mdns/mdns.h"
#include "platform/test_platform.h"

namespace mdns {
namespace {

class Lifecycle : public ::testing::Test {
 protected:
  void SetUp() override {
    platform_use_test_mode(&p_, nullptr);
    ASSERT_EQ(mDNS_Init(m_.get(), &p_, cache_.data(), 8, mDNSfalse, nullptr, nullptr), mStatus_NoError);
  }
  void TearDown() override { mDNS_FinalExit(m_.get()); }

  mStatus browse(DNSQuestion& q, const char* type, const char* domain) {
    domainname t{};
    domainname d{};
    MakeDomainNameFromDNSNameString(&t, type);
    MakeDomainNameFromDNSNameString(&d, domain);
    return mDNS_StartBrowse(m_.get(), &q, &t, &d, mDNSInterface_Any, mDNSfalse, nullptr, nullptr);
  }

  std::unique_ptr<mDNS> m_ = std::make_unique<mDNS>();
  mDNS_PlatformSupport p_{};
  std::vector<CacheEntity> cache_ = std::vector<CacheEntity>(8);
};

TEST_F(Lifecycle, StopsOfWhatNeverRanDoNothingStartsTwiceAreRefusedAndExitStopsEverything) {
  DNSQuestion never{};
  EXPECT_EQ(mDNS_StopQuery(m_.get(), &never), mStatus_BadParamErr);
  DNSQuestion garbage;
  std::memset(&garbage, 0xA5, sizeof garbage);
  EXPECT_EQ(mDNS_StopQuery(m_.get(), &garbage), mStatus_BadParamErr);
  ServiceInfoQuery no_resolve{};
  mDNS_StopResolveService(m_.get(), &no_resolve);

  DNSQuestion q{};
  ASSERT_EQ(browse(q, "_http._tcp", "local."), mStatus_NoError);
  EXPECT_EQ(browse(q, "_http._tcp", "local."), mStatus_AlreadyRegistered);
  // A copy of an active question's bytes is not the question.
  DNSQuestion copy;
  std::memcpy(&copy, &q, sizeof q);
  EXPECT_EQ(mDNS_StopQuery(m_.get(), &copy), mStatus_BadParamErr);
  EXPECT_EQ(mDNS_StopQuery(m_.get(), &q), mStatus_NoError);
  EXPECT_EQ(mDNS_StopQuery(m_.get(), &q), mStatus_BadParamErr);

  // Exit stops everything, and init works again on the same storage.
  ServiceInfo info{};
  ServiceInfoQuery resolve{};
  MakeDomainNameFromDNSNameString(&info.name, "Tv._http._tcp.local.");
  ASSERT_EQ(browse(q, "_http._tcp", "local."), mStatus_NoError);
  ASSERT_EQ(mDNS_StartResolveService(m_.get(), &resolve, &info, nullptr, nullptr), mStatus_NoError);
  mDNS_StartExit(m_.get());
  EXPECT_EQ(browse(q, "_ipp._tcp", "local."), mStatus_NotInitializedErr);
  mDNS_FinalExit(m_.get());
  EXPECT_EQ(browse(q, "_http._tcp", "local."), mStatus_NotInitializedErr);
  ASSERT_EQ(mDNS_Init(m_.get(), &p_, cache_.data(), 8, mDNSfalse, nullptr, nullptr), mStatus_NoError);
  EXPECT_EQ(browse(q, "_http._tcp", "local."), mStatus_NoError);
  mDNS_StopResolveService(m_.get(), &resolve);
  mDNS_StopQuery(m_.get(), &q);
}

}  // namespace
}  // namespace mdns
