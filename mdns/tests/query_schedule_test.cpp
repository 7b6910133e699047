// When queries go out, what they carry, and how they are grouped.
#include <set>

#include "engine_fixture.h"

namespace mdns_test {
namespace {

class QueryScheduleTest : public EngineTest {
 protected:
  // Enough PTR answers that their known-answer list needs several packets.
  void receive_many_instances(int count) {
    for (int i = 0; i < count; i += 10) {
      Message msg;
      for (int j = i; j < i + 10 && j < count; ++j) {
        const std::string name =
            "A rather long instance name number " + std::to_string(j) + "._http._tcp.local.";
        msg.answer("_http._tcp.local.", kDNSType_PTR, 4500, name_bytes(name.c_str()));
      }
      receive(msg);
    }
  }
};

TEST_F(QueryScheduleTest, FirstQueryAfterShortDelayThenIntervalsDoubleUpToAnHour) {
  start_browse(&question());
  run_until(kStartTime + 19);
  EXPECT_TRUE(sent_.empty()) << "never before 20 ms";
  run_until(kStartTime + 6 * 3600 * 1000);
  const auto qs = queries_asking("_http._tcp.local.", kDNSType_PTR);
  ASSERT_GE(qs.size(), 14u);
  EXPECT_GE(qs[0].time - kStartTime, 20);
  EXPECT_LE(qs[0].time - kStartTime, 120);
  EXPECT_GE(qs[1].time - qs[0].time, 1000);
  for (size_t i = 0; i < qs.size(); ++i) {
    ASSERT_EQ(qs[i].questions.size(), 1u);
    EXPECT_EQ(qs[i].questions[0].unicast_response, i == 0) << "only the first query asks QU: " << i;
  }
  for (size_t i = 2; i < qs.size(); ++i) {
    const int32_t previous = qs[i - 1].time - qs[i - 2].time;
    const int32_t interval = qs[i].time - qs[i - 1].time;
    EXPECT_LE(interval, 3600 * 1000) << i;
    if (previous < 1800 * 1000) {
      EXPECT_GE(interval, 2 * previous) << i;
    } else {
      EXPECT_EQ(interval, 3600 * 1000) << i;
    }
  }
  EXPECT_EQ(qs.back().time - qs[qs.size() - 2].time, 3600 * 1000);
}

TEST_F(QueryScheduleTest, FirstQueryDelayIsSpreadOverItsRange) {
  int32_t low = 1000;
  int32_t high = 0;
  for (int i = 0; i < 40; ++i) {
    DNSQuestion& q = question();
    sent_.clear();
    const int32_t start = now_;
    start_query(&q, ("h" + std::to_string(i) + ".local.").c_str(), kDNSType_A);
    run_for(200);
    ASSERT_EQ(sent_.size(), 2u);  // IPv4 and IPv6
    low = std::min(low, sent_[0].time - start);
    high = std::max(high, sent_[0].time - start);
    mDNS_StopQuery(&m_, &q);
  }
  EXPECT_GE(low, 20);
  EXPECT_LE(high, 120);
  EXPECT_GT(high - low, 30) << "delays should not all be the same";
}

TEST_F(QueryScheduleTest, QueriesGoOutOnEveryUsableInterfaceAndFamilyOrOnlyTheQuestionsOne) {
  add_eth1();
  start_browse(&question());
  run_for(150);
  ASSERT_EQ(sent_.size(), 3u);  // eth0 v4 + v6, eth1 v4 only
  EXPECT_EQ(queries_asking("_http._tcp.local.", kDNSType_PTR, 6).size(), 1u);

  sent_.clear();
  start_browse(&question(), "_ipp._tcp", eth1());
  run_for(150);
  ASSERT_EQ(sent_.size(), 1u);
  EXPECT_EQ(sent_[0].interface_id, eth1());
  EXPECT_EQ(sent_[0].family, 4);
}

TEST_F(QueryScheduleTest, QuestionsDueTogetherShareOnePacket) {
  for (const char* type : {"_http._tcp", "_ipp._tcp", "_ssh._tcp"}) {
    start_browse(&question(), type);
  }
  run_for(1500);
  const auto v4 = queries_asking("_http._tcp.local.", kDNSType_PTR);
  ASSERT_EQ(v4.size(), 2u);
  // The random first delays differ by at most 100 ms, so all three always go together.
  for (const auto& q : v4) {
    EXPECT_EQ(q.questions.size(), 3u);
  }
  EXPECT_EQ(m_.counters.queries_sent, 12u);  // 3 questions x 2 packets x 2 families
}

TEST_F(QueryScheduleTest, RefreshQueriesAtEightyToNinetyFivePercentOfTtlOnlyForAskedRecords) {
  start_query(&question(), "host.local.", kDNSType_A);
  receive(Message()
              .answer("host.local.", kDNSType_A, 100, a_data("192.168.1.30"), true)
              .answer("idle.local.", kDNSType_A, 100, a_data("192.168.1.31")));
  const int32_t received = now_;  // before the first query: cached, so no periodic query needed
  run_until(received + 99000);
  const auto qs = queries_asking("host.local.", kDNSType_A);
  ASSERT_EQ(qs.size(), 4u);
  const int32_t points[] = {80000, 85000, 90000, 95000};
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_GE(qs[i].time - received, points[i]) << i;
    EXPECT_LE(qs[i].time - received, points[i] + 2000) << i;
    EXPECT_TRUE(qs[i].known_answers.empty()) << "less than half its TTL left";
  }
  EXPECT_TRUE(queries_asking("idle.local.", kDNSType_A).empty()) << "answers no question";
  run_until(received + 100000);
  EXPECT_EQ(count_events(QC_rmv), 1u);
  EXPECT_EQ(m_.CacheUsed, 0u);
}

TEST_F(QueryScheduleTest, KnownAnswersOnlyAboveHalfTheirTtlAndFromThePacketsInterface) {
  add_eth1();
  start_browse(&question());
  receive(Message()
              .answer("_http._tcp.local.", kDNSType_PTR, 12, name_bytes("Short._http._tcp.local."))
              .answer("_http._tcp.local.", kDNSType_PTR, 4500, name_bytes("Long._http._tcp.local.")));
  receive(Message().answer("_http._tcp.local.", kDNSType_PTR, 4500, name_bytes("Far._http._tcp.local.")),
          "10.0.0.2", 5353, eth1());
  run_for(16000);
  const auto qs = queries_asking("_http._tcp.local.", kDNSType_PTR);
  ASSERT_GE(qs.size(), 10u);  // ~0.1 s, 1, 3, 7, 15 s on each interface, and Short's refreshes
  for (const auto& q : qs) {
    const int32_t age = q.time - kStartTime;
    std::set<std::string> targets;
    for (const auto& ka : q.known_answers) {
      const std::string target = text_of(ka.rdata.u.name);
      targets.insert(target);
      if (target == "Short._http._tcp.local.") {
        EXPECT_LE(ka.ttl, 12u);
        EXPECT_GE(ka.ttl, static_cast<uint32_t>(12 - age / 1000 - 1)) << "the remaining TTL";
      }
    }
    using Set = std::set<std::string>;
    if (q.interface_id == eth1()) {
      EXPECT_EQ(targets, Set{"Far._http._tcp.local."}) << age;
    } else if (age < 6000) {
      EXPECT_EQ(targets, (Set{"Long._http._tcp.local.", "Short._http._tcp.local."})) << age;
    } else {
      EXPECT_EQ(targets, Set{"Long._http._tcp.local."}) << age;
    }
  }
}

TEST_F(QueryScheduleTest, ManyKnownAnswersSpillIntoTruncatedContinuationPackets) {
  start_browse(&question());
  start_query(&question(), "_http._tcp.local.", kDNSType_ANY);  // answered by the same records
  constexpr int kInstances = 80;
  receive_many_instances(kInstances);
  run_for(150);
  std::vector<SentQuery> v4;
  for (const auto& q : sent_) {
    if (q.family == 4) {
      v4.push_back(q);
    }
  }
  ASSERT_GE(v4.size(), 2u);
  size_t total = 0;
  for (size_t i = 0; i < v4.size(); ++i) {
    const bool last = i + 1 == v4.size();
    EXPECT_EQ((v4[i].flags & 0x0200) != 0, !last) << "TC on all but the last packet";
    EXPECT_EQ(v4[i].questions.size(), i == 0 ? 2u : 0u);
    total += v4[i].known_answers.size();
  }
  EXPECT_EQ(total, static_cast<size_t>(kInstances)) << "each known answer exactly once";
}

TEST_F(QueryScheduleTest, QueriesWhoseKnownAnswersSpillBackOffFourfold) {
  start_browse(&question());
  run_for(150);  // the first query, with nothing known yet
  receive_many_instances(80);
  run_for(200000);
  const auto qs = queries_asking("_http._tcp.local.", kDNSType_PTR, 4);
  ASSERT_GE(qs.size(), 4u);
  EXPECT_GE(qs[1].time - qs[0].time, 1000);
  EXPECT_LT(qs[1].time - qs[0].time, 1200);
  for (size_t i = 2; i < qs.size(); ++i) {
    EXPECT_GE(qs[i].time - qs[i - 1].time, 4 * (qs[i - 1].time - qs[i - 2].time)) << i;
  }
}

TEST_F(QueryScheduleTest, IdenticalQuestionsGoOutOncePerPacket) {
  constexpr int kQuestions = 200;
  for (int i = 0; i < kQuestions; ++i) {
    start_query(&question(), "box.local.", kDNSType_A);
    run_for(3);  // started over time, as resolves are
  }
  start_query(&question(), "other.local.", kDNSType_A);
  run_for(8000);
  const auto qs = queries_asking("box.local.", kDNSType_A);
  ASSERT_GE(qs.size(), 3u);
  EXPECT_LE(qs.size(), 5u) << "one schedule for all of them";
  for (const auto& q : qs) {
    EXPECT_EQ(q.asks("box.local.", kDNSType_A), 1);
  }
  EXPECT_FALSE(queries_asking("other.local.", kDNSType_A).empty());
}

class TinyCacheQueryTest : public EngineTest {
 protected:
  TinyCacheQueryTest() : EngineTest(2) {}
};

TEST_F(TinyCacheQueryTest, QuestionWhoseCachedAnswerLeftBeforeDeliveryAsksAfterAll) {
  start_browse(&question());
  receive(Message()
              .answer("_http._tcp.local.", kDNSType_PTR, 4500, name_bytes("A._http._tcp.local."))
              .answer("box.local.", kDNSType_A, 10, a_data("192.168.1.20")));
  run();
  sent_.clear();
  start_query(&question(), "box.local.", kDNSType_A);  // cached: rests
  receive(Message().answer("_http._tcp.local.", kDNSType_PTR, 4500, name_bytes("B._http._tcp.local.")));
  ASSERT_EQ(m_.counters.records_evicted, 1u);
  run_for(200);
  EXPECT_FALSE(queries_asking("box.local.", kDNSType_A).empty());
}

}  // namespace
}  // namespace mdns_test
