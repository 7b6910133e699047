// Service resolve: SRV and TXT of the instance, then A and AAAA of the SRV
// target.  It follows the SRV as it changes, reports every address once per
// SRV, and stops asking (on the link) for what it has reported: it listens.
//
// What the network can make a resolve report is bounded.  For an SRV, each
// family's first address goes out at once, with the others that came in the
// same announcement; later, only a replacement for reported addresses that
// are all gone, once it has stood ten seconds.  A changed SRV is followed once
// it has stood two seconds.  A host on the link whose records keep changing
// is thus not believed until they stop, and then reported once more.
#include "engine/resolve.h"

#include <cstring>
#include <initializer_list>

#include "cache/cache.h"
#include "engine/engine.h"
#include "engine/questions.h"
#include "wire/identity.h"
#include "wire/names.h"

namespace mdns {
namespace {

constexpr int32_t kSteadySrvMs = 2000;
constexpr int32_t kSteadyReplacementMs = 10000;

ServiceInfoQuery* query_of(DNSQuestion* q) {
  return static_cast<ServiceInfoQuery*>(q->QuestionContext);
}

// The resolve's callbacks: a silent resolve only keeps its questions, so that
// the newer one that replaced it inherits their schedule, and hears nothing.
ServiceInfoQuery* speaking_query_of(DNSQuestion* q) {
  ServiceInfoQuery* query = query_of(q);
  return resolve_of(query).silent ? nullptr : query;
}

bool resolve_active(mDNS* m, ServiceInfoQuery* query) {
  return resolve_of(query).magic == kResolveMagic && question_active(m, &resolve_of(query).srv);
}

// ---- Records that must stand still before they count ----

// Unicast DNS answers change only when the core polls, at its own pace.
bool steady(const CacheRecord& rr, int32_t now, int32_t for_ms) {
  return !rr.expiring && (rr.source == Source::kUnicastDns || time_diff(now, rr.first_received) >= for_ms);
}

int32_t steady_at(const CacheRecord& rr, int32_t for_ms) {
  return time_add(rr.first_received, for_ms);
}

int family_index(int family) {
  return family == mDNSAddrType_IPv4 ? 0 : 1;
}

void recheck_unlink(CoreState& core, ServiceInfoQuery* query) {
  ResolveState& rs = resolve_of(query);
  if (!rs.rechecking) {
    return;
  }
  (rs.recheck_prev != nullptr ? resolve_of(rs.recheck_prev).recheck_next : core.recheck_head) =
      rs.recheck_next;
  (rs.recheck_next != nullptr ? resolve_of(rs.recheck_next).recheck_prev : core.recheck_tail) =
      rs.recheck_prev;
  rs.rechecking = false;
  rs.recheck_prev = rs.recheck_next = nullptr;
}

// Due times are mostly a little later than the last one listed: the list is
// kept in order by walking back from its end.
void recheck_at(mDNS* m, ServiceInfoQuery* query, int32_t when) {
  CoreState& core = core_of(m);
  ResolveState& rs = resolve_of(query);
  if (rs.rechecking && time_diff(rs.recheck_due, when) <= 0) {
    return;
  }
  recheck_unlink(core, query);
  ServiceInfoQuery* after = core.recheck_tail;
  while (after != nullptr && time_diff(resolve_of(after).recheck_due, when) > 0) {
    after = resolve_of(after).recheck_prev;
  }
  ServiceInfoQuery* before = after != nullptr ? resolve_of(after).recheck_next : core.recheck_head;
  rs.recheck_prev = after;
  rs.recheck_next = before;
  (after != nullptr ? resolve_of(after).recheck_next : core.recheck_head) = query;
  (before != nullptr ? resolve_of(before).recheck_prev : core.recheck_tail) = query;
  rs.recheck_due = when;
  rs.rechecking = true;
}

// Every question of a resolve asks on the resolve's interface and reports to it.
void prepare_question(DNSQuestion* q, ServiceInfoQuery* query, const domainname& name, uint16_t qtype,
                      mDNSQuestionCallback* callback) {
  std::memset(q, 0, sizeof *q);
  q->qname = name;
  q->qtype = qtype;
  q->qclass = kDNSClass_IN;
  q->InterfaceID = query->info->InterfaceID;
  q->QuestionCallback = callback;
  q->QuestionContext = query;
}

void stop_questions(mDNS* m, ResolveState& rs) {
  question_stop(m, &rs.srv);
  question_stop(m, &rs.txt);
  question_stop(m, &rs.a);
  question_stop(m, &rs.aaaa);
}

bool address_of(const ResourceRecord& answer, mDNSAddr& out) {
  out = mDNSAddr{};
  if (answer.rrtype == kDNSType_A && answer.rdata->length == 4) {
    out.type = mDNSAddrType_IPv4;
    out.ip.v4 = answer.rdata->u.ipv4;
  } else if (answer.rrtype == kDNSType_AAAA && answer.rdata->length == 16) {
    out.type = mDNSAddrType_IPv6;
    out.ip.v6 = answer.rdata->u.ipv6;
  } else {
    return false;
  }
  return true;
}

bool same_address(const mDNSAddr& a, const mDNSAddr& b) {
  return a.type == b.type && std::memcmp(&a.ip, &b.ip, a.type == mDNSAddrType_IPv4 ? 4 : 16) == 0;
}

bool reported_family(const ResolveState& rs, mDNSu8 family) {
  for (int i = 0; i < rs.reported_count; ++i) {
    if (rs.reported_addresses[i].type == family) {
      return true;
    }
  }
  return false;
}

// Once an address is out, the SRV and TXT and that address family need no
// asking on the link any more: devices announce what changes.  The other
// family is still asked for, as a response may carry one family only (or the
// other's record was pushed out of a full cache).  The questions stay, to hear
// changes.
void settle(mDNS* m, ResolveState& rs) {
  const bool v4 = reported_family(rs, mDNSAddrType_IPv4);
  const bool v6 = reported_family(rs, mDNSAddrType_IPv6);
  for (DNSQuestion* q : {&rs.srv, &rs.txt, v4 ? &rs.a : nullptr, v6 ? &rs.aaaa : nullptr}) {
    if (q != nullptr && question_active(m, q)) {
      question_set_listening(m, q, true);
    }
  }
}

// Whether a reported address of the record's family is still cached.
bool family_still_cached(mDNS* m, ServiceInfoQuery* query, uint16_t rrtype) {
  CoreState& core = core_of(m);
  ResolveState& rs = resolve_of(query);
  DNSQuestion* q = rrtype == kDNSType_A ? &rs.a : &rs.aaaa;
  for (CacheRecord* rr = cache_first(core, name_hash(rs.target)); rr != nullptr; rr = cache_next(core, rr)) {
    mDNSAddr address;
    if (rr->expiring || rr->add_pending || !question_answered_by(*q, rr->resrec) ||
        !address_of(rr->resrec, address)) {
      continue;
    }
    for (int i = 0; i < rs.reported_count; ++i) {
      if (same_address(rs.reported_addresses[i], address)) {
        return true;
      }
    }
  }
  return false;
}

// A further address counts only in place of reported ones that all went, and
// once it has stood still; otherwise the resolve looks again when it may.
bool replaces_what_went(mDNS* m, ServiceInfoQuery* query, const CacheRecord& rr) {
  if (rr.expiring || family_still_cached(m, query, rr.resrec.rrtype)) {
    return false;
  }
  if (!steady(rr, core_of(m).now, kSteadyReplacementMs)) {
    recheck_at(m, query, steady_at(rr, kSteadyReplacementMs));
    return false;
  }
  return true;
}

// Each address goes to the caller once with the current SRV's port.
void report_address(mDNS* m, ServiceInfoQuery* query, const ResourceRecord& answer) {
  ResolveState& rs = resolve_of(query);
  mDNSAddr address;
  if (!rs.has_srv || !address_of(answer, address)) {
    return;
  }
  for (int i = 0; i < rs.reported_count; ++i) {
    if (same_address(rs.reported_addresses[i], address)) {
      return;
    }
  }
  if (rs.reported_count == kMaxReportedAddresses) {
    return;  // a device with more addresses than that is not believed
  }
  const CacheRecord& rr = *record_of(&answer);
  int32_t& batch = rs.first_batch[family_index(address.type)];
  if (!reported_family(rs, static_cast<mDNSu8>(address.type))) {
    batch = rr.first_received;
  } else if (rr.first_received != batch && !replaces_what_went(m, query, rr)) {
    return;
  }
  rs.reported_addresses[rs.reported_count++] = address;
  query->info->ip = address;
  query->info->port = rs.port;
  rs.reported = true;
  settle(m, rs);
  if (query->ServiceInfoQueryCallback != nullptr) {
    CallbackScope scope(m);
    query->ServiceInfoQueryCallback(m, query);
  }
}

void on_address(mDNS* m, DNSQuestion* q, const ResourceRecord* const answer, QC_result kind) {
  ServiceInfoQuery* query = speaking_query_of(q);
  if (query == nullptr) {
    return;
  }
  if (kind == QC_add) {
    report_address(m, query, *answer);
  } else {
    recheck_at(m, query, core_of(m).now);  // a replacement may count now
  }
}

// The addresses of the target that the cache holds go out again (a new port).
void report_cached_addresses(mDNS* m, ServiceInfoQuery* query) {
  CoreState& core = core_of(m);
  ResolveState& rs = resolve_of(query);
  for (CacheRecord* rr = cache_first(core, name_hash(rs.target)); rr != nullptr;) {
    CacheRecord* next = cache_next(core, rr);
    DNSQuestion* q = rr->resrec.rrtype == kDNSType_A ? &rs.a : &rs.aaaa;
    if (!rr->add_pending && question_active(m, q) && question_answered_by(*q, rr->resrec)) {
      report_address(m, query, rr->resrec);
      if (!core.initialized || !resolve_active(m, query)) {
        return;
      }
    }
    rr = next;
  }
}

void start_address_questions(mDNS* m, ServiceInfoQuery* query) {
  ResolveState& rs = resolve_of(query);
  question_stop(m, &rs.a);
  question_stop(m, &rs.aaaa);
  prepare_question(&rs.a, query, rs.target, kDNSType_A, on_address);
  prepare_question(&rs.aaaa, query, rs.target, kDNSType_AAAA, on_address);
  (void)question_start(m, &rs.a, QuestionKind::kResolveAddress, core_of(m).now);
  (void)question_start(m, &rs.aaaa, QuestionKind::kResolveAddress, core_of(m).now);
}

// The SRV that went away comes back as it was (a goodbye, then the device
// announced again): its endpoints were reported and are still the same.
bool returns_unchanged(const ResolveState& rs, const rdataSRV& srv) {
  return !rs.has_srv && rs.reported_count > 0 && rs.port.NotAnInteger == srv.port.NotAnInteger &&
         names_equal(rs.target, srv.target);
}

// A new SRV (the first, or one whose port or target differs): every address
// is reported again with its port, and a new target's addresses are asked for.
void adopt(mDNS* m, ServiceInfoQuery* query, const rdataSRV& srv) {
  ResolveState& rs = resolve_of(query);
  const bool returning = returns_unchanged(rs, srv);
  const bool new_target = !rs.has_srv || !names_equal(rs.target, srv.target);
  if (new_target && !returning && !copy_name(rs.target, srv.target)) {
    return;
  }
  rs.has_srv = true;
  rs.port = srv.port;
  query->info->port = srv.port;
  if (returning) {
    start_address_questions(m, query);
    settle(m, rs);
    return;
  }
  rs.reported_count = 0;
  if (new_target) {
    start_address_questions(m, query);
  } else {
    report_cached_addresses(m, query);
  }
}

// Another cached SRV of the instance than `gone`, or null.
const ResourceRecord* other_cached_srv(mDNS* m, ResolveState& rs, const ResourceRecord* gone) {
  CoreState& core = core_of(m);
  for (CacheRecord* rr = cache_first(core, name_hash(rs.srv.qname)); rr != nullptr;
       rr = cache_next(core, rr)) {
    if (&rr->resrec != gone && !rr->expiring && !rr->add_pending &&
        question_answered_by(rs.srv, rr->resrec)) {
      return &rr->resrec;
    }
  }
  return nullptr;
}

bool is_current(const ResolveState& rs, const rdataSRV& srv) {
  return rs.has_srv && rs.port.NotAnInteger == srv.port.NotAnInteger && names_equal(rs.target, srv.target);
}

// A resolve that has reported follows a new SRV once it stands still; before
// that, the first one (or the same one back) is taken at once.
void consider_srv(mDNS* m, ServiceInfoQuery* query, const ResourceRecord& answer) {
  ResolveState& rs = resolve_of(query);
  const rdataSRV& srv = answer.rdata->u.srv;
  if (is_current(rs, srv)) {
    return;
  }
  const CacheRecord& rr = *record_of(&answer);
  if (!rs.reported || returns_unchanged(rs, srv) || steady(rr, core_of(m).now, kSteadySrvMs)) {
    adopt(m, query, srv);
  } else if (!rr.expiring) {
    recheck_at(m, query, steady_at(rr, kSteadySrvMs));
  }
}

void on_srv(mDNS* m, DNSQuestion* q, const ResourceRecord* const answer, QC_result kind) {
  ServiceInfoQuery* query = speaking_query_of(q);
  if (query == nullptr) {
    return;
  }
  ResolveState& rs = resolve_of(query);
  const rdataSRV& srv = answer->rdata->u.srv;
  if (kind == QC_add) {
    consider_srv(m, query, *answer);
    return;
  }
  // An older SRV that a newer one flushed changes nothing.
  if (!is_current(rs, srv)) {
    return;
  }
  if (const ResourceRecord* newer = other_cached_srv(m, rs, answer)) {
    // Until the newer one is followed, no address goes out with the old port.
    rs.has_srv = false;
    consider_srv(m, query, *newer);
    return;
  }
  // No SRV left: the target is no longer known.  A resolve that has reported
  // keeps listening for the service to come back, and remembers what it
  // reported, so that the same SRV back does not report it twice.
  rs.has_srv = false;
  question_stop(m, &rs.a);
  question_stop(m, &rs.aaaa);
}

void on_txt(mDNS* m, DNSQuestion* q, const ResourceRecord* const answer, QC_result kind) {
  (void)m;
  ServiceInfoQuery* query = speaking_query_of(q);
  if (kind != QC_add || query == nullptr) {
    return;
  }
  ServiceInfo* info = query->info;
  const size_t n =
      answer->rdata->length < sizeof(info->TXTinfo) ? answer->rdata->length : sizeof(info->TXTinfo);
  std::memcpy(info->TXTinfo, answer->rdata->u.data, n);
  info->TXTlen = static_cast<mDNSu16>(n);
}

// The wait is over: a changed SRV that stood still is followed, and further
// addresses that did are reported; what still changes is waited for again.
void recheck(mDNS* m, ServiceInfoQuery* query) {
  CoreState& core = core_of(m);
  ResolveState& rs = resolve_of(query);
  for (CacheRecord* rr = cache_first(core, name_hash(rs.srv.qname)); rr != nullptr;
       rr = cache_next(core, rr)) {
    if (!rr->add_pending && question_answered_by(rs.srv, rr->resrec)) {
      consider_srv(m, query, rr->resrec);
      if (!core.initialized || !resolve_active(m, query) || rs.silent) {
        return;
      }
    }
  }
  if (rs.has_srv) {
    report_cached_addresses(m, query);
  }
}

// Each add event of an instance starts a resolve (the device search does so):
// the older resolves of the same instance on the same interface go silent, so
// that an instance announced and withdrawn over and over reaches the caller
// once per announcement, not once per announcement and earlier resolve.
void silence_older_resolves(mDNS* m, ServiceInfoQuery* newest) {
  CoreState& core = core_of(m);
  const DNSQuestion& mine = resolve_of(newest).srv;
  const uint32_t hash = state_of(&mine).name_hash;
  for (DNSQuestion* q = core.question_buckets[hash % kQuestionBuckets]; q != nullptr;
       q = state_of(q).bucket_next) {
    if (q == &mine || state_of(q).kind != QuestionKind::kResolveSrv || q->InterfaceID != mine.InterfaceID ||
        !names_equal(q->qname, mine.qname)) {
      continue;
    }
    ResolveState& older = resolve_of(query_of(q));
    if (older.silent) {
      continue;
    }
    older.silent = true;
    for (DNSQuestion* own : {&older.srv, &older.txt, &older.a, &older.aaaa}) {
      if (question_active(m, own)) {
        question_set_listening(m, own, true);
      }
    }
  }
}

}  // namespace

void resolves_recheck_due(mDNS* m) {
  CoreState& core = core_of(m);
  while (core.initialized && core.recheck_head != nullptr &&
         time_reached(resolve_of(core.recheck_head).recheck_due, core.now)) {
    ServiceInfoQuery* query = core.recheck_head;
    recheck_unlink(core, query);
    if (resolve_active(m, query) && !resolve_of(query).silent) {
      recheck(m, query);
    }
  }
}

bool resolves_next_recheck(const mDNS* m, int32_t& when) {
  const CoreState& core = core_of(m);
  if (core.recheck_head == nullptr) {
    return false;
  }
  when = resolve_of(core.recheck_head).recheck_due;
  return true;
}

void resolves_forget_rechecks(mDNS* m) {
  CoreState& core = core_of(m);
  while (core.recheck_head != nullptr) {
    recheck_unlink(core, core.recheck_head);
  }
}

}  // namespace mdns

using namespace mdns;

extern "C" {

mStatus mDNS_StartResolveService(mDNS* const m, ServiceInfoQuery* query, ServiceInfo* info,
                                 mDNSServiceInfoQueryCallback* Callback, void* Context) {
  if (m == nullptr || query == nullptr || info == nullptr) {
    return mStatus_BadParamErr;
  }
  if (!core_of(m).initialized || core_of(m).shutting_down) {
    return mStatus_NotInitializedErr;
  }
  if (name_length(info->name) == 0) {
    return mStatus_BadParamErr;
  }
  // Restarting a running resolve on the same storage begins it afresh.
  mDNS_StopResolveService(m, query);
  std::memset(&query->Private, 0, sizeof query->Private);
  ResolveState& rs = resolve_of(query);
  rs.magic = kResolveMagic;
  query->info = info;
  query->ServiceInfoQueryCallback = Callback;
  query->ServiceInfoQueryContext = Context;
  info->ip = mDNSAddr{};
  info->port.NotAnInteger = 0;
  info->TXTlen = 0;

  const int32_t now = engine_clock(m);
  prepare_question(&rs.srv, query, info->name, kDNSType_SRV, on_srv);
  prepare_question(&rs.txt, query, info->name, kDNSType_TXT, on_txt);
  mStatus status = question_start(m, &rs.srv, QuestionKind::kResolveSrv, now);
  if (status == mStatus_NoError) {
    status = question_start(m, &rs.txt, QuestionKind::kResolveTxt, now);
  }
  if (status != mStatus_NoError) {
    mDNS_StopResolveService(m, query);
    return status;
  }
  silence_older_resolves(m, query);
  return status;
}

void mDNS_StopResolveService(mDNS* const m, ServiceInfoQuery* query) {
  if (m == nullptr || query == nullptr || resolve_of(query).magic != kResolveMagic) {
    return;
  }
  stop_questions(m, resolve_of(query));
  recheck_unlink(core_of(m), query);
  resolve_of(query).magic = 0;
}

}  // extern "C"
