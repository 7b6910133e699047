// Browse events and resolves driven by injected responses.
#include "engine_fixture.h"

namespace mdns_test {
namespace {

struct Resolution {
  int32_t time;
  mDNSAddr ip;
  uint16_t port;
  std::string txt;
};

class ResolveTest : public EngineTest {
 protected:
  ResolveTest() = default;
  explicit ResolveTest(mDNSu32 cache_size) : EngineTest(cache_size) {}

  struct Slot {
    ServiceInfoQuery query;
    ServiceInfo info;
    ResolveTest* test;
  };

  static void on_resolved(mDNS* const m, ServiceInfoQuery* query) {
    auto* self = static_cast<Slot*>(query->ServiceInfoQueryContext)->test;
    const ServiceInfo& info = *query->info;
    self->results_.push_back({self->now_, info.ip,
                              static_cast<uint16_t>(info.port.b[0] << 8 | info.port.b[1]),
                              std::string(reinterpret_cast<const char*>(info.TXTinfo), info.TXTlen)});
    if (self->stop_resolve_in_callback_) {
      mDNS_StopResolveService(m, query);
    }
  }

  Slot* resolve(const domainname& name, mDNSInterfaceID interface_id = eth0()) {
    slots_.push_back(std::make_unique<Slot>());
    Slot* slot = slots_.back().get();
    slot->test = this;
    slot->info.name = name;
    slot->info.InterfaceID = interface_id;
    EXPECT_EQ(mDNS_StartResolveService(&m_, &slot->query, &slot->info, on_resolved, slot), mStatus_NoError);
    return slot;
  }

  // Like the search's browse handler: every add starts a resolve, inside the callback.
  static void browse_and_resolve(mDNS* const m, DNSQuestion* question, const ResourceRecord* const answer,
                                 QC_result kind) {
    record_event(m, question, answer, kind);
    if (kind == QC_add) {
      static_cast<ResolveTest*>(question->QuestionContext)
          ->resolve(answer->rdata->u.name, answer->InterfaceID);
    }
  }

  void start_resolving_browse() {
    start_browse(&question(), "_http._tcp", mDNSInterface_Any, browse_and_resolve);
  }

  void TearDown() override {
    for (auto& s : slots_) {
      mDNS_StopResolveService(&m_, &s->query);
    }
    EngineTest::TearDown();
  }

  size_t unique_type_queries() const {
    size_t n = 0;
    for (const auto& q : sent_) {
      for (const auto& question : q.questions) {
        n += question.qtype != kDNSType_PTR ? 1 : 0;
      }
    }
    return n;
  }

  std::vector<std::unique_ptr<Slot>> slots_;
  std::vector<Resolution> results_;
  bool stop_resolve_in_callback_ = false;
};

TEST_F(ResolveTest, BrowseReportsAddsAndRemovesOncePerInstance) {
  DNSQuestion& browse = question();
  start_browse(&browse);
  run();
  receive(announcement("One", "one.local."));
  receive(announcement("Two", "two.local."));
  receive(announcement("One", "one.local."));
  EXPECT_EQ(count_events(QC_add), 2u);
  EXPECT_EQ(count_events(QC_add, "One._http._tcp.local."), 1u);
  receive(Message().answer("_http._tcp.local.", kDNSType_PTR, 0, name_bytes("Two._http._tcp.local.")));
  run_for(1500);
  EXPECT_EQ(count_events(QC_rmv), 1u);
  EXPECT_EQ(count_events(QC_rmv, "Two._http._tcp.local."), 1u);
  EXPECT_EQ(browse.CurrentAnswers, 1u);
}

TEST_F(ResolveTest, ResolveCompletesFromAdditionalRecordsWithoutAnyQuery) {
  start_resolving_browse();
  run();
  receive(announcement("Printer", "printer.local."));
  ASSERT_EQ(slots_.size(), 1u);
  run_for(5000);
  ASSERT_EQ(results_.size(), 2u) << "one callback per address";
  bool v4 = false;
  bool v6 = false;
  for (const auto& r : results_) {
    EXPECT_EQ(r.port, 8080);
    EXPECT_EQ(r.txt, std::string("\x06path=/"));
    v4 |= r.ip.type == mDNSAddrType_IPv4 && std::memcmp(r.ip.ip.v4.b, a_data("192.168.1.20").data(), 4) == 0;
    v6 |= r.ip.type == mDNSAddrType_IPv6 && std::memcmp(r.ip.ip.v6.b, aaaa_data("fe80::20").data(), 16) == 0;
  }
  EXPECT_TRUE(v4);
  EXPECT_TRUE(v6);
  EXPECT_LE(results_.back().time - kStartTime, 10) << "delivered at the next passes, not after a query";
  EXPECT_EQ(unique_type_queries(), 0u);
}

TEST_F(ResolveTest, ResolveAsksForWhatIsMissingAndFollowsTheTarget) {
  Slot* slot = resolve(dn("Cam._http._tcp.local."));
  run_for(200);
  EXPECT_EQ(queries_asking("Cam._http._tcp.local.", kDNSType_SRV, 4).size(), 1u);
  EXPECT_EQ(queries_asking("Cam._http._tcp.local.", kDNSType_SRV, 6).size(), 1u);
  EXPECT_EQ(queries_asking("Cam._http._tcp.local.", kDNSType_TXT).size(), 1u);
  EXPECT_EQ(slot->info.ip.type, mDNSAddrType_None);

  receive(Message().answer("Cam._http._tcp.local.", kDNSType_SRV, 120, srv_data(554, "cam-a.local."), true));
  run_for(200);
  EXPECT_EQ(queries_asking("cam-a.local.", kDNSType_A).size(), 1u);
  EXPECT_EQ(queries_asking("cam-a.local.", kDNSType_AAAA, 6).size(), 1u);
  EXPECT_TRUE(results_.empty());

  Message addr;
  addr.answer("cam-a.local.", kDNSType_A, 120, a_data("192.168.1.40"), true);
  receive(addr);
  ASSERT_EQ(results_.size(), 1u);
  EXPECT_EQ(results_[0].port, 554);
  EXPECT_EQ(slot->info.ip.type, mDNSAddrType_IPv4);

  // The service moves to another host: flush replaces the SRV, addresses follow.
  now_ += 5000;
  receive(Message()
              .answer("Cam._http._tcp.local.", kDNSType_SRV, 120, srv_data(8554, "cam-b.local."), true)
              .additional("cam-b.local.", kDNSType_A, 120, a_data("192.168.1.41")));
  run_for(2000);
  ASSERT_EQ(results_.size(), 2u);
  EXPECT_EQ(results_[1].port, 8554);
  EXPECT_EQ(std::memcmp(results_[1].ip.ip.v4.b, a_data("192.168.1.41").data(), 4), 0);
  // An address for the old target no longer reports anything.
  receive(addr);
  run();
  EXPECT_EQ(results_.size(), 2u);
}

TEST_F(ResolveTest, AnswersOfANewQuestionArriveAtTheNextPassNotInsideStart) {
  receive(announcement("Printer", "printer.local."));
  start_browse(&question());
  EXPECT_TRUE(events_.empty());
  EXPECT_EQ(mdns::engine_time_to_next_event(&m_, now_), 0);
  run();
  EXPECT_EQ(count_events(QC_add), 1u);
  EXPECT_GT(mdns::engine_time_to_next_event(&m_, now_), 0);

  resolve(dn("Printer._http._tcp.local."));
  EXPECT_TRUE(results_.empty());
  run();  // SRV and TXT delivered; the address questions start now
  run();  // their cached answers
  EXPECT_EQ(results_.size(), 2u);
  EXPECT_EQ(unique_type_queries(), 0u);
}

TEST_F(ResolveTest, StoppingTheResolveInsideItsCallbackEndsIt) {
  stop_resolve_in_callback_ = true;
  start_resolving_browse();
  run();
  receive(announcement("Printer", "printer.local."));
  run_for(3000);
  EXPECT_EQ(results_.size(), 1u) << "the second address comes after the stop";
  receive(announcement("Printer", "printer.local."));
  run_for(200000);
  EXPECT_EQ(results_.size(), 1u);
  EXPECT_EQ(unique_type_queries(), 0u);
}

class SmallCacheResolveTest : public ResolveTest {
 protected:
  SmallCacheResolveTest() : ResolveTest(6) {}
};

TEST_F(SmallCacheResolveTest, SrvPushedOutOfAFullCacheIsNotAskedForAgainAndAddressesStillCount) {
  start_browse(&question());
  resolve(dn("Printer._http._tcp.local."));
  run();
  receive(Message()
              .answer("Printer._http._tcp.local.", kDNSType_SRV, 10, srv_data(8080, "printer.local."), true)
              .answer("Printer._http._tcp.local.", kDNSType_TXT, 4500, txt_data("k=v"), true)
              .answer("printer.local.", kDNSType_A, 120, a_data("192.168.1.20"), true));
  run_for(200);
  ASSERT_EQ(results_.size(), 1u);
  sent_.clear();
  Message many;
  for (int i = 0; i < 4; ++i) {
    const std::string name = "Other" + std::to_string(i) + "._http._tcp.local.";
    many.answer("_http._tcp.local.", kDNSType_PTR, 4500, name_bytes(name.c_str()));
  }
  receive(many);
  ASSERT_GE(m_.counters.records_evicted, 1u) << "the SRV, nearest its expiry, made room";
  run_for(5000);
  EXPECT_TRUE(queries_asking("Printer._http._tcp.local.", kDNSType_SRV).empty());
  receive(Message().answer("printer.local.", kDNSType_A, 120, a_data("192.168.1.21"), true));
  run_for(200);
  EXPECT_EQ(results_.size(), 2u) << "the resolve kept its target";
}

}  // namespace
}  // namespace mdns_test
