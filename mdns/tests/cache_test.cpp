// The record cache: what is kept, for how long, and what leaves first.
#include "cache.h"

#include "engine_fixture.h"

namespace mdns_test {
namespace {

class CacheTest : public EngineTest {};

TEST_F(CacheTest, KeepsEveryRecordOfAResponseAndRefreshesWithoutDuplicates) {
  receive(announcement("Printer", "printer.local."));
  EXPECT_EQ(m_.CacheUsed, 5u);
  EXPECT_EQ(m_.counters.records_cached, 5u);

  now_ += 30000;
  receive(announcement("Printer", "printer.local."));
  EXPECT_EQ(m_.CacheUsed, 5u) << "re-receipt refreshes the same entries";

  // Same data, other case in the owner name: the same record.
  Message upper;
  upper.answer("_HTTP._TCP.LOCAL.", kDNSType_PTR, 4440, name_bytes("Printer._http._tcp.local."))
      .answer("_http._tcp.local.", kDNSType_PTR, 4440, name_bytes("PRINTER._HTTP._tcp.local."))
      .answer("Printer._http._tcp.local.", kDNSType_SRV, 120, srv_data(8080, "PRINTER.local."));
  receive(upper);
  EXPECT_EQ(m_.CacheUsed, 5u) << "names in data compare without case too";

  // Same name and type but on another interface, or with other data: new entries.
  ASSERT_TRUE(mdns::platform_test_add_interface(&p_, "eth1", 3, "10.0.0.1", "255.0.0.0"));
  ASSERT_EQ(mDNSPlatformPosixRefreshInterfaceList(&m_), mStatus_NoError);
  Message other;
  other.answer("printer.local.", kDNSType_A, 120, a_data("192.168.1.21"));
  receive(other);
  receive(other, "10.0.0.2", 5353, mdns::platform_interface_id(3));
  EXPECT_EQ(m_.CacheUsed, 7u);
}

TEST_F(CacheTest, AnswerExpiresAtItsTtlWithARemoveEvent) {
  DNSQuestion& browse = question();
  start_browse(&browse);
  run();
  Message msg;
  msg.answer("_http._tcp.local.", kDNSType_PTR, 100, name_bytes("A._http._tcp.local."));
  receive(msg);
  ASSERT_EQ(count_events(QC_add), 1u);

  run_until(kStartTime + 99900);
  EXPECT_EQ(count_events(QC_rmv), 0u);
  run_until(kStartTime + 100000);
  ASSERT_EQ(count_events(QC_rmv), 1u);
  EXPECT_EQ(events_.back().data, "A._http._tcp.local.");
  EXPECT_EQ(m_.CacheUsed, 0u);
}

TEST_F(CacheTest, RefreshedRecordOutlivesItsFirstTtl) {
  DNSQuestion& browse = question();
  start_browse(&browse);
  Message msg;
  msg.answer("_http._tcp.local.", kDNSType_PTR, 100, name_bytes("A._http._tcp.local."));
  receive(msg);
  run_until(kStartTime + 81000);
  receive(msg);
  run_until(kStartTime + 150000);
  EXPECT_EQ(count_events(QC_add), 1u) << "a refresh is no new answer";
  EXPECT_EQ(count_events(QC_rmv), 0u);
  run_until(kStartTime + 181000);
  EXPECT_EQ(count_events(QC_rmv), 1u);
}

TEST_F(CacheTest, GoodbyeRemovesTheRecordOneSecondLater) {
  DNSQuestion& browse = question();
  start_browse(&browse);
  Message hello;
  hello.answer("_http._tcp.local.", kDNSType_PTR, 4500, name_bytes("A._http._tcp.local."));
  receive(hello);
  Message bye;
  bye.answer("_http._tcp.local.", kDNSType_PTR, 0, name_bytes("A._http._tcp.local."));
  now_ += 5000;
  receive(bye);
  const int32_t goodbye_time = now_;
  run_until(goodbye_time + 990);
  EXPECT_EQ(count_events(QC_rmv), 0u);
  run_until(goodbye_time + 1000);
  ASSERT_EQ(count_events(QC_rmv), 1u);
  EXPECT_EQ(events_.back().time, goodbye_time + 1000);

  // A goodbye for something never cached adds nothing.
  receive(bye);
  EXPECT_EQ(m_.CacheUsed, 0u);
  EXPECT_EQ(count_events(QC_add), 1u);
}

TEST_F(CacheTest, CacheFlushExpiresOlderRecordsOfTheSameSet) {
  DNSQuestion& q = question();
  start_query(&q, "host.local.", kDNSType_A);
  Message first;
  first.answer("host.local.", kDNSType_A, 120, a_data("192.168.1.30"), true)
      .answer("host.local.", kDNSType_A, 120, a_data("192.168.1.31"), true);
  receive(first);
  EXPECT_EQ(m_.CacheUsed, 2u) << "records of one packet do not flush each other";

  // Within a second of the first: both stay.
  now_ += 500;
  Message third;
  third.answer("host.local.", kDNSType_A, 120, a_data("192.168.1.32"), true);
  receive(third);
  run_for(3000);
  EXPECT_EQ(m_.CacheUsed, 3u);

  // Later, a flush record (refreshing .31) sends the others away a second later.
  Message flush;
  flush.answer("host.local.", kDNSType_A, 120, a_data("192.168.1.31"), true);
  receive(flush);
  const int32_t flush_time = now_;
  run_until(flush_time + 900);
  EXPECT_EQ(m_.CacheUsed, 3u);
  run_until(flush_time + 1000);
  EXPECT_EQ(m_.CacheUsed, 1u);
  EXPECT_EQ(count_events(QC_rmv), 2u);

  // Without the flush bit, nothing else is touched.
  now_ += 5000;
  Message shared;
  shared.answer("host.local.", kDNSType_A, 120, a_data("192.168.1.33"), false);
  receive(shared);
  run_for(2000);
  EXPECT_EQ(m_.CacheUsed, 2u);
}

TEST_F(CacheTest, VanishedInterfaceTakesItsRecordsWithRemoveEvents) {
  ASSERT_TRUE(mdns::platform_test_add_interface(&p_, "eth1", 3, "10.0.0.1", "255.0.0.0"));
  ASSERT_EQ(mDNSPlatformPosixRefreshInterfaceList(&m_), mStatus_NoError);
  DNSQuestion& browse = question();
  start_browse(&browse);
  receive(announcement("A", "a.local."));
  receive(announcement("B", "b.local."), "10.0.0.2", 5353, mdns::platform_interface_id(3));
  run();
  ASSERT_EQ(count_events(QC_add), 2u);

  ASSERT_TRUE(mdns::platform_test_remove_interface(&p_, 3));
  ASSERT_EQ(mDNSPlatformPosixRefreshInterfaceList(&m_), mStatus_NoError);
  ASSERT_EQ(count_events(QC_rmv), 1u);
  EXPECT_EQ(events_.back().data, "B._http._tcp.local.");
  EXPECT_EQ(m_.CacheUsed, 5u);
}

class SmallCacheTest : public EngineTest {
 protected:
  SmallCacheTest() : EngineTest(4) {}
};

TEST_F(SmallCacheTest, FullCacheEvictsIdleRecordNearestExpiryFirst) {
  DNSQuestion& browse = question();
  start_browse(&browse);
  Message msg;
  msg.answer("_http._tcp.local.", kDNSType_PTR, 10, name_bytes("Short._http._tcp.local."))
      .answer("idle1.local.", kDNSType_A, 300, a_data("192.168.1.1"))
      .answer("idle2.local.", kDNSType_A, 200, a_data("192.168.1.2"))
      .answer("idle3.local.", kDNSType_A, 400, a_data("192.168.1.3"));
  receive(msg);
  ASSERT_EQ(m_.CacheUsed, 4u);

  Message more;
  more.answer("new.local.", kDNSType_A, 500, a_data("192.168.1.4"));
  receive(more);
  EXPECT_EQ(m_.CacheUsed, 4u);
  EXPECT_EQ(m_.counters.records_evicted, 1u);
  // idle2 (200 s) went; the browse answer (10 s) answers a question and stays.
  DNSQuestion& q = question();
  start_query(&q, "idle2.local.", kDNSType_A);
  run();
  EXPECT_EQ(count_events(QC_rmv), 0u);
  EXPECT_EQ(count_events(QC_add), 1u) << "only the browse answer, idle2 is gone";
}

TEST_F(SmallCacheTest, WhenEverythingAnswersAQuestionNearestExpiryLeavesWithRemoveEvent) {
  DNSQuestion& browse = question();
  start_browse(&browse);
  Message msg;
  msg.answer("_http._tcp.local.", kDNSType_PTR, 300, name_bytes("A._http._tcp.local."))
      .answer("_http._tcp.local.", kDNSType_PTR, 100, name_bytes("B._http._tcp.local."))
      .answer("_http._tcp.local.", kDNSType_PTR, 200, name_bytes("C._http._tcp.local."))
      .answer("_http._tcp.local.", kDNSType_PTR, 400, name_bytes("D._http._tcp.local."));
  receive(msg);
  run();
  ASSERT_EQ(count_events(QC_add), 4u);
  Message more;
  more.answer("_http._tcp.local.", kDNSType_PTR, 500, name_bytes("E._http._tcp.local."));
  receive(more);
  EXPECT_EQ(count_events(QC_rmv, "B._http._tcp.local."), 1u);
  EXPECT_EQ(count_events(QC_add, "E._http._tcp.local."), 1u);
  EXPECT_EQ(m_.CacheUsed, 4u);
}

TEST_F(SmallCacheTest, ResponseLargerThanTheCacheNeverFails) {
  DNSQuestion& browse = question();
  start_browse(&browse);
  run();
  Message msg;
  std::vector<std::string> names;
  for (int i = 0; i < 10; ++i) {
    names.push_back("I" + std::to_string(i) + "._http._tcp.local.");
    msg.answer("_http._tcp.local.", kDNSType_PTR, 100 + static_cast<uint32_t>(i),
               name_bytes(names.back().c_str()));
  }
  receive(msg);
  EXPECT_EQ(m_.CacheUsed, 4u);
  // Every add the browse saw is matched by a remove unless the record is still cached.
  EXPECT_EQ(count_events(QC_add) - count_events(QC_rmv), 4u);
}

}  // namespace
}  // namespace mdns_test

namespace mdns_test {
namespace {

class ChurningCacheTest : public EngineTest {
 protected:
  ChurningCacheTest() : EngineTest(40) {}

  // The entry eviction must choose, worked out the slow way.
  const CacheRecord* expected_victim() const {
    const CacheRecord* idle = nullptr;
    const CacheRecord* any = nullptr;
    for (mDNSu32 i = 0; i < cache_size_; ++i) {
      const CacheRecord& rr = cache_[i].r;
      if (!rr.InUse) {
        continue;
      }
      bool answers = false;
      for (const DNSQuestion* q = m_.Questions; q != nullptr; q = q->next) {
        answers |= q->qtype == rr.resrec.rrtype && mdns::names_equal(q->qname, *rr.resrec.name);
      }
      if (any == nullptr || rr.ExpiryTime - any->ExpiryTime < 0) {
        any = &rr;
      }
      if (!answers && (idle == nullptr || rr.ExpiryTime - idle->ExpiryTime < 0)) {
        idle = &rr;
      }
    }
    return idle != nullptr ? idle : any;
  }
};

TEST_F(ChurningCacheTest, EveryEvictionTakesTheRightEntryUnderChurn) {
  DNSQuestion& browse = question();
  start_browse(&browse);
  run();
  uint32_t seed = 12345;
  auto next = [&seed] {
    seed = seed * 1103515245u + 12345u;
    return (seed >> 8) & 0xFFFF;
  };
  DNSQuestion* extra = nullptr;
  for (int i = 0; i < 400; ++i) {
    now_ += static_cast<int32_t>(next() % 50);
    Message msg;
    const std::string name = "h" + std::to_string(i) + ".local.";
    const uint32_t ttl = 60 + next() % 4000;
    if (next() % 3 == 0) {
      const std::string inst = "I" + std::to_string(i) + "._http._tcp.local.";
      msg.answer("_http._tcp.local.", kDNSType_PTR, ttl, name_bytes(inst.c_str()));
    } else {
      msg.answer(name.c_str(), kDNSType_A, ttl, a_data("192.168.1.9"));
    }
    const bool full = m_.CacheUsed == cache_size_;
    const CacheRecord* victim = full ? expected_victim() : nullptr;
    const int32_t victim_expiry = victim != nullptr ? victim->ExpiryTime : 0;
    const uint32_t victim_hash = victim != nullptr ? victim->resrec.namehash : 0;
    receive(msg);
    if (victim != nullptr) {
      // The slot now holds the new record, or the victim's time has been taken.
      EXPECT_TRUE(!victim->InUse || victim->ExpiryTime != victim_expiry ||
                  victim->resrec.namehash != victim_hash)
          << "round " << i;
    }
    // Stir: goodbyes, and questions coming and going.
    if (i % 37 == 0) {
      Message bye;
      bye.answer(("h" + std::to_string(i - 5) + ".local.").c_str(), kDNSType_A, 0, a_data("192.168.1.9"));
      receive(bye);
    }
    if (i % 50 == 0) {
      if (extra != nullptr) {
        mDNS_StopQuery(&m_, extra);
      }
      extra = &question();
      start_query(extra, ("h" + std::to_string(i + 3) + ".local.").c_str(), kDNSType_A);
    }
    run();
  }
  EXPECT_GT(m_.counters.records_evicted, 300u);
}

}  // namespace
}  // namespace mdns_test
