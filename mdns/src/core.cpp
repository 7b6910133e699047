// The core's public entry points and its event pass.
#include <cstring>

#include "cache.h"
#include "clock.h"
#include "engine.h"
#include "names.h"
#include "platform.h"
#include "query_schedule.h"
#include "questions.h"

namespace mdns {
namespace {

// A cached answer reached a refresh point: its questions go out in this pass.
void request_refresh(mDNS* m, const CacheRecord& rr) {
  for (DNSQuestion* q = m->Questions; q != nullptr; q = q->next) {
    if (!q->DeliverAddsPending && question_answered_by(*q, rr.resrec)) {
      q->RefreshPending = 1;
    }
  }
}

void age_cache(mDNS* m, int32_t now) {
  for (mDNSu32 i = 0; i < m->rrcache_size; ++i) {
    CacheRecord* rr = &m->rrcache[i].r;
    if (!rr->InUse) {
      continue;
    }
    if (time_reached(rr->ExpiryTime, now)) {
      cache_remove(m, rr, now);
      continue;
    }
    // After a long pause several refresh points may have passed: one query covers them.
    bool refresh = false;
    while (!rr->ExpiryPending && rr->RefreshStep < 4 && time_reached(rr->NextRequiredQuery, now)) {
      cache_advance_refresh(m, rr);
      refresh = true;
    }
    if (refresh) {
      request_refresh(m, *rr);
    }
  }
}

int32_t compute_next_event(const mDNS* m, int32_t now) {
  int32_t next = time_add(now, kMaxQueryInterval);
  for (mDNSu32 i = 0; i < m->rrcache_size; ++i) {
    const CacheRecord& rr = m->rrcache[i].r;
    if (rr.InUse) {
      next = time_min(next, cache_next_event(rr));
    }
  }
  int32_t query_time = 0;
  if (next_query_time(m, query_time)) {
    next = time_min(next, query_time);
  }
  return next;
}

void stop_all_questions(mDNS* m) {
  while (m->Questions != nullptr) {
    question_stop(m, m->Questions);
  }
  m->CurrentQuestion = nullptr;
}

}  // namespace

void engine_run_scheduled(mDNS* m, int32_t now) {
  if (!m->Initialized) {
    return;
  }
  m->timenow = now;
  deliver_pending_adds(m, now);
  age_cache(m, now);
  send_due_queries(m, now);
  m->NextScheduledEvent = compute_next_event(m, now);
}

int32_t engine_time_to_next_event(const mDNS* m, int32_t now) {
  if (!m->Initialized) {
    return kMaxQueryInterval;
  }
  if (any_adds_pending(m)) {
    return 0;
  }
  const int32_t wait = time_diff(m->NextScheduledEvent, now);
  return wait < 0 ? 0 : wait;
}

void engine_interface_removed(mDNS* m, mDNSInterfaceID interface_id, int32_t now) {
  if (!m->Initialized) {
    return;
  }
  m->timenow = now;
  for (mDNSu32 i = 0; i < m->rrcache_size; ++i) {
    CacheRecord* rr = &m->rrcache[i].r;
    if (rr->InUse && rr->resrec.InterfaceID == interface_id) {
      cache_remove(m, rr, now);
    }
  }
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
  std::memset(m, 0, sizeof(*m));
  m->p = p;
  m->rrcache = rrcachestorage;
  m->rrcache_size = rrcachesize;
  m->MainCallback = Callback;
  m->MainContext = Context;
  cache_reset(m);
  const mStatus status = platform_init(m);
  if (status != mStatus_NoError) {
    return status;
  }
  m->RandomState = platform_random_seed() | 1u;
  m->Initialized = 1;
  m->NextScheduledEvent = engine_now(m);
  if (Callback != nullptr) {
    Callback(m, mStatus_NoError);
  }
  return mStatus_NoError;
}

void mDNS_StartExit(mDNS* const m) {
  if (m == nullptr || !m->Initialized) {
    return;
  }
  stop_all_questions(m);
  m->ShutdownPending = 1;
}

void mDNS_FinalExit(mDNS* const m) {
  if (m == nullptr || !m->Initialized) {
    return;
  }
  stop_all_questions(m);
  platform_close(m);
  cache_reset(m);
  m->HostInterfaces = nullptr;
  m->Initialized = 0;
  m->ShutdownPending = 0;
}

mStatus mDNS_StartQuery(mDNS* const m, DNSQuestion* const question) {
  if (m == nullptr || question == nullptr) {
    return mStatus_BadParamErr;
  }
  return question_start(m, question, engine_now(m));
}

mStatus mDNS_StartBrowse(mDNS* const m, DNSQuestion* const question, const domainname* const srv,
                         const domainname* const domain, const mDNSInterfaceID InterfaceID,
                         mDNSBool ForceMCast, mDNSQuestionCallback* Callback, void* Context) {
  if (m == nullptr || question == nullptr || srv == nullptr || domain == nullptr) {
    return mStatus_BadParamErr;
  }
  if (question_is_active(m, question)) {
    return mStatus_AlreadyRegistered;
  }
  domainname qname;
  if (!copy_name(qname, *srv) || name_length(*domain) == 0 || !append_name(qname, *domain)) {
    return mStatus_BadParamErr;
  }
  question->qname = qname;
  question->qtype = kDNSType_PTR;
  question->qclass = kDNSClass_IN;
  question->InterfaceID = InterfaceID;
  question->ForceMCast = ForceMCast;
  question->QuestionCallback = Callback;
  question->QuestionContext = Context;
  return mDNS_StartQuery(m, question);
}

mStatus mDNS_StopQuery(mDNS* const m, DNSQuestion* const question) {
  if (m == nullptr || question == nullptr || !question_is_active(m, question)) {
    return mStatus_BadParamErr;
  }
  question_stop(m, question);
  return mStatus_NoError;
}

}  // extern "C"
