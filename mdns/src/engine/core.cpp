// The core's public entry points and its event pass.
#include <cstring>

#include "ask/asker.h"
#include "ask/dns_asker.h"
#include "ask/one_shot.h"
#include "ask/question_lists.h"
#include "ask/send_governor.h"
#include "cache/cache.h"
#include "engine/browse_answers.h"
#include "engine/devices.h"
#include "engine/engine.h"
#include "engine/events.h"
#include "engine/questions.h"
#include "engine/resolve.h"
#include "platform/clock.h"
#include "platform/interfaces_posix.h"
#include "platform/platform.h"
#include "wire/names.h"

namespace mdns {
namespace {

// Rounds of first deliveries per pass: a browse add starts a resolve, whose
// SRV starts address questions; more than that waits for the next pass.
constexpr int kDeliveryRounds = 4;

void age_cache(mDNS* m) {
  CoreState& core = core_of(m);
  while (CacheRecord* rr = cache_next_due(core, core.now)) {
    if (cache_expired(*rr, core.now)) {
      record_departs(m, rr, rr->expiring ? Departure::kGoodbye : Departure::kExpired);
    } else {
      // After a long pause several refresh points may have passed: one query covers them.
      bool refresh = false;
      while (!cache_expired(*rr, core.now) && time_reached(rr->next_refresh, core.now) &&
             cache_pass_refresh_point(core, rr)) {
        refresh = true;
      }
      if (refresh) {
        request_refresh(m, *rr);
      }
    }
    if (!core.initialized) {
      return;
    }
  }
}

void age_browse_answers(mDNS* m) {
  CoreState& core = core_of(m);
  browse_answers_due(core, core.now, [m](int index) {
    if (core_of(m).initialized) {
      browse_answer_due(m, index);
    }
  });
}

void stop_all_questions(mDNS* m) {
  CoreState& core = core_of(m);
  for (DNSQuestion*& head : core.question_buckets) {
    while (head != nullptr) {
      question_stop(m, head);
    }
  }
}

bool two_label_type_at(const domainname& name, size_t skipped) {
  if (label_count(name) != skipped + 2) {
    return false;
  }
  const uint8_t* app = skip_labels(name, skipped);
  if (app[0] < 2 || app[1] != '_') {
    return false;
  }
  const uint8_t* proto = skip_labels(name, skipped + 1);
  return label_equals(proto, "_tcp") || label_equals(proto, "_udp");
}

// "_app._tcp", a subtype of one ("_printer._sub._app._tcp"), or the name that
// lists the types themselves: their PTR answers name instances (or types)
// that come and go, which is what a browse remembers.
bool valid_service_type(const domainname& type) {
  if (label_count(type) == 3 && label_equals(type.c, "_services") &&
      label_equals(skip_labels(type, 1), "_dns-sd") && label_equals(skip_labels(type, 2), "_udp")) {
    return true;
  }
  if (label_count(type) == 4 && type.c[0] > 0 && label_equals(skip_labels(type, 1), "_sub")) {
    return two_label_type_at(type, 2);
  }
  return two_label_type_at(type, 0);
}

}  // namespace

void engine_deliver_waiting(mDNS* m) {
  for (int round = 0; round < kDeliveryRounds && core_of(m).initialized && any_waiting(m); ++round) {
    begin_delivery_round(m);
    while (DNSQuestion* q = next_to_deliver(m)) {
      deliver_cached_answers(m, q);
      if (!core_of(m).initialized) {
        return;
      }
    }
  }
}

void engine_begin_pass(mDNS* m) {
  core_of(m).now = engine_now(m);
  core_of(m).in_pass = true;
}

int32_t engine_clock(mDNS* m) {
  CoreState& core = core_of(m);
  if (!core.in_pass) {
    core.now = engine_now(m);
  }
  return core.now;
}

void engine_run_scheduled(mDNS* m) {
  CoreState& core = core_of(m);
  if (core.initialized) {
    // Rechecks may start address questions, delivered in the same pass.
    resolves_recheck_due(m);
    engine_deliver_waiting(m);
    age_cache(m);
    age_browse_answers(m);
  }
  if (core.initialized) {
    devices_run(m);
  }
  if (core.initialized) {
    askers_run(m);
  }
  core.in_pass = false;
}

int32_t engine_time_to_next_event(mDNS* m, int32_t now) {
  CoreState& core = core_of(m);
  if (!core.initialized) {
    return kMaxQueryIntervalMs;
  }
  if (any_waiting(m)) {
    return 0;
  }
  int32_t next = time_add(now, kMaxQueryIntervalMs);
  int32_t when = 0;
  if (askers_next_time(m, when)) {
    next = time_min(next, when);
  }
  if (cache_next_time(core, when)) {
    next = time_min(next, when);
  }
  if (browse_answers_next_time(core, when)) {
    next = time_min(next, when);
  }
  if (resolves_next_recheck(m, when)) {
    next = time_min(next, when);
  }
  next = time_min(next, devices_next_time(m));
  const int32_t wait = time_diff(next, now);
  return wait < 0 ? 0 : wait;
}

mStatus engine_refresh_interfaces(mDNS* m) {
  InterfaceChanges changes;
  const mStatus status = platform_refresh_interfaces(m, changes);
  for (size_t i = 0; i < changes.removed_count; ++i) {
    engine_interface_removed(m, changes.removed[i]);
  }
  for (size_t i = 0; i < changes.added_count; ++i) {
    engine_interface_added(m, changes.added[i]);
  }
  return status;
}

PassState& pass_of(mDNS* m) {
  return core_of(m);
}

AskState& ask_of(mDNS* m) {
  return core_of(m);
}

void engine_interface_removed(mDNS* m, mDNSInterfaceID interface_id) {
  if (core_of(m).initialized) {
    interface_gone(m, interface_id);
  }
}

void engine_interface_added(mDNS* m, mDNSInterfaceID interface_id) {
  CoreState& core = core_of(m);
  if (!core.initialized) {
    return;
  }
  for (DNSQuestion* head : core.question_buckets) {
    for (DNSQuestion* q = head; q != nullptr; q = state_of(q).bucket_next) {
      const QuestionState& s = state_of(q);
      if (s.leader == nullptr && !s.unicast &&
          (q->InterfaceID == mDNSInterface_Any || q->InterfaceID == interface_id)) {
        asker_ask_again(m, q);
      }
    }
  }
}

int32_t engine_now(const mDNS* m) {
  const CoreState& core = core_of(m);
  return core.fake_clock_set ? core.fake_clock : platform_now_ms();
}

void engine_set_fake_clock(mDNS* m, int32_t now) {
  CoreState& core = core_of(m);
  core.fake_clock_set = now != 0;
  core.fake_clock = now;
  core.now = engine_now(m);
}

const Counters& engine_counters(const mDNS* m) {
  return core_of(m).counters;
}

}  // namespace mdns

using namespace mdns;

extern "C" {

mStatus mDNS_Init(mDNS* const m, mDNS_PlatformSupport* const p, CacheEntity* rrcachestorage,
                  mDNSu32 rrcachesize, mDNSBool AdvertiseLocalAddresses, mDNSCallback* Callback,
                  void* Context) {
  (void)AdvertiseLocalAddresses;  // the core never announces anything
  if (m == nullptr || p == nullptr || (rrcachestorage == nullptr && rrcachesize != 0)) {
    return mStatus_BadParamErr;
  }
  // A test's fake clock survives a restart on the same storage.
  const CoreState& before = core_of(m);
  if (before.magic == kCoreMagic && before.callback_depth > 0) {
    return mStatus_BadStateErr;  // a callback of this core is still under way
  }
  const bool fake = before.magic == kCoreMagic && before.fake_clock_set;
  const int32_t fake_clock = before.fake_clock;
  std::memset(m, 0, sizeof(*m));
  CoreState& core = core_of(m);
  core.magic = kCoreMagic;
  core.platform = p;
  core.cache = rrcachestorage;
  core.cache_size = rrcachesize;
  core.main_callback = Callback;
  core.main_context = Context;
  core.fake_clock_set = fake;
  core.fake_clock = fake_clock;
  core.now = engine_now(m);
  cache_reset(core);
  browse_answers_reset(core);
  one_shots_reset(core);
  governor_reset(core);
  devices_reset(core);
  const mStatus status = platform_init(m);
  if (status != mStatus_NoError) {
    return status;
  }
  dns_asker_reset(m);
  core.random_state = platform_random_seed() | 1u;
  core.initialized = true;
  if (Callback != nullptr) {
    Callback(m, mStatus_NoError);
  }
  return mStatus_NoError;
}

void mDNS_StartExit(mDNS* const m) {
  if (m == nullptr || !core_of(m).initialized) {
    return;
  }
  // Everything is stopped from here on: the caller may free its questions and
  // resolves before mDNS_FinalExit.
  stop_all_questions(m);
  resolves_forget_rechecks(m);
  core_of(m).shutting_down = true;
}

void mDNS_FinalExit(mDNS* const m) {
  if (m == nullptr || !core_of(m).initialized) {
    return;
  }
  CoreState& core = core_of(m);
  stop_all_questions(m);
  resolves_forget_rechecks(m);
  dns_asker_close_all(m);
  platform_close(m);
  cache_reset(core);
  m->HostInterfaces = nullptr;
  core.initialized = false;
  core.shutting_down = false;
}

mStatus mDNS_StartQuery(mDNS* const m, DNSQuestion* const question) {
  if (m == nullptr || question == nullptr) {
    return mStatus_BadParamErr;
  }
  return question_start(m, question, QuestionKind::kPlain, engine_clock(m));
}

mStatus mDNS_StartBrowse(mDNS* const m, DNSQuestion* const question, const domainname* const srv,
                         const domainname* const domain, const mDNSInterfaceID InterfaceID,
                         mDNSBool ForceMCast, mDNSQuestionCallback* Callback, void* Context) {
  if (m == nullptr || question == nullptr || srv == nullptr || domain == nullptr) {
    return mStatus_BadParamErr;
  }
  if (question_active(m, question)) {
    return mStatus_AlreadyRegistered;
  }
  domainname qname;
  if (!valid_service_type(*srv) || label_count(*domain) == 0 || !copy_name(qname, *srv) ||
      !append_name(qname, *domain)) {
    return mStatus_BadParamErr;
  }
  question->qname = qname;
  question->qtype = kDNSType_PTR;
  question->qclass = kDNSClass_IN;
  question->InterfaceID = InterfaceID;
  question->ForceMCast = ForceMCast;
  question->QuestionCallback = Callback;
  question->QuestionContext = Context;
  return question_start(m, question, QuestionKind::kBrowse, engine_clock(m));
}

mStatus mDNS_StopQuery(mDNS* const m, DNSQuestion* const question) {
  if (m == nullptr || question == nullptr || !question_active(m, question)) {
    return mStatus_BadParamErr;
  }
  question_stop(m, question);
  return mStatus_NoError;
}

}  // extern "C"
