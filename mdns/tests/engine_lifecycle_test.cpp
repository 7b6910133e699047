// Acceptance of received packets, stopping in every state, and the core's lifecycle.
#include "engine_fixture.h"

namespace mdns_test {
namespace {

using AcceptanceTest = EngineTest;

Message one_record(uint16_t flags = 0x8400) {
  return Message(flags).answer("host.local.", kDNSType_A, 120, a_data("192.168.1.30"));
}

TEST_F(AcceptanceTest, OnlyOnLinkResponsesFromPort5353AreCached) {
  receive(one_record(), "192.168.1.20", 5354);
  receive(one_record(0x0000));            // a query
  receive(one_record(0x8400 | 0x0800));   // OPCODE 1
  receive(one_record(0x8400 | 0x0003));   // RCODE 3
  receive(one_record(), "192.168.2.20");  // another subnet
  receive(one_record(), "2001:db8::20");  // global IPv6 not on the link
  add_eth1();
  receive(one_record(), "10.0.0.2");  // the subnet of another interface than the arrival one
  EXPECT_EQ(m_.CacheUsed, 0u);
  EXPECT_EQ(m_.counters.packets_received, 7u);
  EXPECT_EQ(m_.counters.packets_dropped, 7u);

  receive(one_record(0x8000));        // AA clear is fine
  receive(one_record(), "fe80::99");  // link-local IPv6
  EXPECT_EQ(m_.counters.packets_accepted, 2u);
  EXPECT_EQ(m_.CacheUsed, 1u);
  // A subnet the arrival interface gains is on-link after the next interface read.
  ASSERT_TRUE(mdns::platform_test_add_address(&p_, kEth0, "192.168.2.10", 24));
  ASSERT_EQ(mDNSPlatformPosixRefreshInterfaceList(&m_), mStatus_NoError);
  receive(one_record(), "192.168.2.20");
  EXPECT_EQ(m_.counters.packets_accepted, 3u);
}

class StopTest : public EngineTest {
 protected:
  static void stop_self(mDNS* const m, DNSQuestion* question, const ResourceRecord* const answer,
                        QC_result kind) {
    record_event(m, question, answer, kind);
    mDNS_StopQuery(m, question);
  }
  static void stop_other(mDNS* const m, DNSQuestion* question, const ResourceRecord* const answer,
                         QC_result kind) {
    record_event(m, question, answer, kind);
    auto* self = static_cast<StopTest*>(question->QuestionContext);
    mDNS_StopQuery(m, self->victim_);
    // Restarting the same storage is allowed too; it must not be delivered twice in this pass.
    if (!self->restarted_) {
      self->restarted_ = true;
      mDNS_StopQuery(m, question);
      EXPECT_EQ(mDNS_StartQuery(m, question), mStatus_NoError);
    }
  }
  DNSQuestion* victim_ = nullptr;
  bool restarted_ = false;
};

TEST_F(StopTest, StopsOfWhatNeverRanDoNothingAndDoubleStartsAreRefused) {
  DNSQuestion& zeroed = question();
  EXPECT_NE(mDNS_StopQuery(&m_, &zeroed), mStatus_NoError);
  DNSQuestion garbage;
  std::memset(&garbage, 0xA5, sizeof garbage);
  mDNS_StopQuery(&m_, &garbage);
  ServiceInfoQuery zq{};
  mDNS_StopResolveService(&m_, &zq);
  ServiceInfoQuery gq;
  std::memset(&gq, 0x5A, sizeof gq);
  mDNS_StopResolveService(&m_, &gq);

  DNSQuestion& browse = question();
  start_browse(&browse);
  EXPECT_EQ(mDNS_StartQuery(&m_, &browse), mStatus_AlreadyRegistered);
  EXPECT_EQ(mDNS_StopQuery(&m_, &browse), mStatus_NoError);
  EXPECT_NE(mDNS_StopQuery(&m_, &browse), mStatus_NoError);
  EXPECT_EQ(m_.Questions, nullptr);

  // A stopped (or never started) core is safe to stop things on too.
  mDNS_StartExit(&m_);
  mDNS_FinalExit(&m_);
  mDNS_StopQuery(&m_, &garbage);
  mDNS_StopResolveService(&m_, &gq);
  mDNS_FinalExit(&m_);
  EXPECT_EQ(mDNSPlatformPosixRefreshInterfaceList(&m_), mStatus_NotInitializedErr);
  mDNS fresh{};
  mDNS_StopQuery(&fresh, &zeroed);
  mDNS_StopResolveService(&fresh, &zq);
  EXPECT_EQ(mDNSPlatformPosixRefreshInterfaceList(&fresh), mStatus_NotInitializedErr);
  init();
}

TEST_F(StopTest, QuestionStoppingItselfInItsCallbackGetsNoMoreEvents) {
  DNSQuestion& browse = question();
  start_browse(&browse, "_http._tcp", mDNSInterface_Any, stop_self);
  run();
  Message msg;
  for (const char* n : {"A._http._tcp.local.", "B._http._tcp.local.", "C._http._tcp.local."}) {
    msg.answer("_http._tcp.local.", kDNSType_PTR, 4500, name_bytes(n));
  }
  receive(msg);
  EXPECT_EQ(events_.size(), 1u);
  // Same when the answers were cached before the question started.
  start_browse(&browse, "_http._tcp", mDNSInterface_Any, stop_self);
  run();
  EXPECT_EQ(events_.size(), 2u);
  run_for(10000);
  EXPECT_EQ(events_.size(), 2u);
  EXPECT_TRUE(sent_.empty()) << "stopped before its first query";
}

TEST_F(StopTest, StoppingTheNextQuestionInsideACallbackIsSafe) {
  DNSQuestion& first = question();
  DNSQuestion& second = question();
  start_query(&first, "host.local.", kDNSType_A);
  first.QuestionCallback = stop_other;
  start_query(&second, "host.local.", kDNSType_A);
  victim_ = &second;
  run();
  receive(Message().answer("host.local.", kDNSType_A, 120, a_data("192.168.1.30")));
  ASSERT_EQ(events_.size(), 1u) << "the stopped question hears nothing";
  run();
  EXPECT_EQ(events_.size(), 2u) << "the restarted question gets the cached answer once, next pass";
  run_for(1000);
  EXPECT_EQ(events_.size(), 2u);
}

TEST_F(StopTest, ExitStopsEverythingAndInitWorksAgainOnTheSameStorage) {
  DNSQuestion& browse = question();
  start_browse(&browse);
  receive(announcement("Printer", "printer.local."));
  run();
  ASSERT_EQ(events_.size(), 1u);
  mDNS_StartExit(&m_);
  EXPECT_NE(mDNS_StartQuery(&m_, &browse), mStatus_NoError);
  mDNS_FinalExit(&m_);
  EXPECT_EQ(m_.Questions, nullptr);
  EXPECT_EQ(events_.size(), 1u) << "exit gives no remove events";
  mDNS_StopQuery(&m_, &browse);

  init();
  EXPECT_EQ(m_.CacheUsed, 0u);
  start_browse(&browse);
  receive(announcement("Printer", "printer.local."));
  EXPECT_EQ(events_.size(), 1u) << "not inside the receive: the browse waits for its first pass";
  run();
  EXPECT_EQ(events_.size(), 2u);
  run_for(200);
  EXPECT_FALSE(sent_.empty());
}

}  // namespace
}  // namespace mdns_test
