// The record cache: what is kept, for how long, and what leaves first.
#include "engine_fixture.h"

namespace mdns_test {
namespace {

using CacheTest = EngineTest;

// "<instance>._http._tcp.local." as a browse answer.
Message ptr(const char* instance, uint32_t ttl) {
  const std::string target = std::string(instance) + "._http._tcp.local.";
  return Message().answer("_http._tcp.local.", kDNSType_PTR, ttl, name_bytes(target.c_str()));
}

TEST_F(CacheTest, OneEntryPerRecordInterfaceAndDataWhateverTheCase) {
  receive(announcement("Printer", "printer.local."));
  EXPECT_EQ(m_.CacheUsed, 5u);
  now_ += 30000;
  receive(announcement("Printer", "printer.local."));
  receive(Message()
              .answer("_HTTP._TCP.LOCAL.", kDNSType_PTR, 4440, name_bytes("PRINTER._HTTP._tcp.local."))
              .answer("Printer._http._tcp.local.", kDNSType_SRV, 120, srv_data(8080, "PRINTER.local.")));
  EXPECT_EQ(m_.CacheUsed, 5u) << "re-receipts, also in other case, refresh the same entries";

  add_eth1();
  const Message other = Message().answer("printer.local.", kDNSType_A, 120, a_data("192.168.1.21"));
  receive(other);
  receive(other, "10.0.0.2", 5353, eth1());
  EXPECT_EQ(m_.CacheUsed, 7u) << "other data, and the same record on another interface";
}

TEST_F(CacheTest, AnswerExpiresAtItsTtlWithARemoveEventUnlessReceivedAgain) {
  start_browse(&question());
  run();
  receive(ptr("A", 100));
  receive(ptr("B", 100));
  ASSERT_EQ(count_events(QC_add), 2u);
  run_until(kStartTime + 81000);
  receive(ptr("B", 100));

  run_until(kStartTime + 99900);
  EXPECT_EQ(count_events(QC_rmv), 0u);
  run_until(kStartTime + 100000);
  EXPECT_EQ(count_events(QC_rmv, "A._http._tcp.local."), 1u);
  run_until(kStartTime + 180900);
  EXPECT_EQ(count_events(QC_rmv), 1u);
  run_until(kStartTime + 181000);
  EXPECT_EQ(count_events(QC_rmv, "B._http._tcp.local."), 1u);
  EXPECT_EQ(count_events(QC_add), 2u) << "a refresh is no new answer";
  EXPECT_EQ(m_.CacheUsed, 0u);
}

TEST_F(CacheTest, GoodbyeRemovesTheRecordOneSecondLater) {
  start_browse(&question());
  receive(ptr("A", 4500));
  now_ += 5000;
  receive(ptr("A", 0));
  const int32_t goodbye_time = now_;
  run_until(goodbye_time + 990);
  EXPECT_EQ(count_events(QC_rmv), 0u);
  run_until(goodbye_time + 1000);
  ASSERT_EQ(count_events(QC_rmv), 1u);
  EXPECT_EQ(events_.back().time, goodbye_time + 1000);

  receive(ptr("A", 0));
  EXPECT_EQ(m_.CacheUsed, 0u) << "a goodbye for something not cached adds nothing";
  EXPECT_EQ(count_events(QC_add), 1u);
}

TEST_F(CacheTest, TtlIsCappedAtAWeek) {
  // Uncapped, TTL * 1000 ms would wrap the clock and expire the record at once.
  receive(Message().answer("host.local.", kDNSType_A, 0xFFFFFFF0u, a_data("192.168.1.30")));
  const int32_t week = 7 * 24 * 3600 * 1000;
  run_until(kStartTime + week - 1000);
  EXPECT_EQ(m_.CacheUsed, 1u);
  run_until(kStartTime + week);
  EXPECT_EQ(m_.CacheUsed, 0u);
}

TEST_F(CacheTest, CacheFlushExpiresRecordsOfTheSetOlderThanOneSecond) {
  start_query(&question(), "host.local.", kDNSType_A);
  receive(Message()
              .answer("host.local.", kDNSType_A, 120, a_data("192.168.1.30"), true)
              .answer("host.local.", kDNSType_A, 120, a_data("192.168.1.31"), true));
  EXPECT_EQ(m_.CacheUsed, 2u) << "records of one packet do not flush each other";
  now_ += 500;
  receive(Message().answer("host.local.", kDNSType_A, 120, a_data("192.168.1.32"), true));
  run_for(3000);
  EXPECT_EQ(m_.CacheUsed, 3u) << "records under a second old are spared";

  receive(Message().answer("host.local.", kDNSType_A, 120, a_data("192.168.1.31"), true));
  const int32_t flush_time = now_;
  run_until(flush_time + 900);
  EXPECT_EQ(m_.CacheUsed, 3u);
  run_until(flush_time + 1000);
  EXPECT_EQ(m_.CacheUsed, 1u);
  EXPECT_EQ(count_events(QC_rmv), 2u);

  now_ += 5000;
  receive(Message().answer("host.local.", kDNSType_A, 120, a_data("192.168.1.33"), false));
  run_for(2000);
  EXPECT_EQ(m_.CacheUsed, 2u) << "without the flush bit nothing else is touched";
}

TEST_F(CacheTest, VanishedInterfaceTakesItsRecordsWithRemoveEvents) {
  add_eth1();
  start_browse(&question());
  receive(announcement("A", "a.local."));
  receive(announcement("B", "b.local."), "10.0.0.2", 5353, eth1());
  run();
  ASSERT_EQ(count_events(QC_add), 2u);

  ASSERT_TRUE(mdns::platform_test_remove_interface(&p_, kEth1));
  ASSERT_EQ(mDNSPlatformPosixRefreshInterfaceList(&m_), mStatus_NoError);
  ASSERT_EQ(count_events(QC_rmv), 1u);
  EXPECT_EQ(events_.back().data, "B._http._tcp.local.");
  EXPECT_EQ(m_.CacheUsed, 5u);
}

class SmallCacheTest : public EngineTest {
 protected:
  SmallCacheTest() : EngineTest(4) {}
};

TEST_F(SmallCacheTest, FullCacheEvictsTheIdleRecordNearestExpiryFirst) {
  start_browse(&question());
  receive(Message()
              .answer("_http._tcp.local.", kDNSType_PTR, 10, name_bytes("Short._http._tcp.local."))
              .answer("idle1.local.", kDNSType_A, 300, a_data("192.168.1.1"))
              .answer("idle2.local.", kDNSType_A, 200, a_data("192.168.1.2"))
              .answer("idle3.local.", kDNSType_A, 400, a_data("192.168.1.3")));
  receive(Message().answer("new.local.", kDNSType_A, 500, a_data("192.168.1.4")));
  EXPECT_EQ(m_.CacheUsed, 4u);
  EXPECT_EQ(m_.counters.records_evicted, 1u);
  // idle2 (200 s) went; the browse answer (10 s) answers a question and stays.
  start_query(&question(), "idle2.local.", kDNSType_A);
  run();
  EXPECT_EQ(count_events(QC_add, "Short._http._tcp.local."), 1u);
  EXPECT_EQ(count_events(QC_add), 1u) << "idle2 is gone";
}

TEST_F(SmallCacheTest, WhenEverythingAnswersAQuestionNearestExpiryLeavesWithRemoveEvent) {
  start_browse(&question());
  run();
  const std::pair<const char*, uint32_t> answers[] = {{"A", 300}, {"B", 100}, {"C", 200}, {"D", 400}};
  for (const auto& [name, ttl] : answers) {
    receive(ptr(name, ttl));
  }
  receive(ptr("E", 500));
  EXPECT_EQ(count_events(QC_rmv, "B._http._tcp.local."), 1u);
  EXPECT_EQ(count_events(QC_add, "E._http._tcp.local."), 1u);

  // A response larger than the cache never fails: every add not still cached was removed.
  Message many;
  for (int i = 0; i < 10; ++i) {
    const std::string name = "I" + std::to_string(i) + "._http._tcp.local.";
    many.answer("_http._tcp.local.", kDNSType_PTR, 600 + static_cast<uint32_t>(i), name_bytes(name.c_str()));
  }
  receive(many);
  EXPECT_EQ(m_.CacheUsed, 4u);
  EXPECT_EQ(count_events(QC_add) - count_events(QC_rmv), 4u);
}

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
  start_browse(&question());
  run();
  uint32_t seed = 12345;
  auto next = [&seed] {
    seed = seed * 1103515245u + 12345u;
    return (seed >> 8) & 0xFFFF;
  };
  DNSQuestion* extra = nullptr;
  for (int i = 0; i < 400; ++i) {
    now_ += static_cast<int32_t>(next() % 50);
    const uint32_t ttl = 60 + next() % 4000;
    const std::string host = "h" + std::to_string(i) + ".local.";
    const std::string inst = "I" + std::to_string(i) + "._http._tcp.local.";
    const Message msg =
        next() % 3 == 0 ? Message().answer("_http._tcp.local.", kDNSType_PTR, ttl, name_bytes(inst.c_str()))
                        : Message().answer(host.c_str(), kDNSType_A, ttl, a_data("192.168.1.9"));
    const CacheRecord* victim = m_.CacheUsed == cache_size_ ? expected_victim() : nullptr;
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
      const std::string old = "h" + std::to_string(i - 5) + ".local.";
      receive(Message().answer(old.c_str(), kDNSType_A, 0, a_data("192.168.1.9")));
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
