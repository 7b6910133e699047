#include "engine/events.h"

#include "ask/asker.h"
#include "ask/dns_asker.h"
#include "cache/cache.h"
#include "engine/browse_answers.h"
#include "engine/questions.h"
#include "platform/clock.h"
#include "wire/identity.h"
#include "wire/names.h"

namespace mdns {
namespace {

// A record to hand to callbacks when the cache no longer holds one: a browse
// answer remembered apart from the cache.
struct DetachedRecord {
  ResourceRecord view;
  domainname name;
  RData rdata;
};

bool fill_detached(const CoreState& core, int index, DetachedRecord& out) {
  const BrowseAnswer& a = core.answers[index];
  if (!browse_answer_name(core, index, out.rdata.u.name)) {
    return false;
  }
  out.name = a.browse->qname;
  out.rdata.MaxRDLength = sizeof(RDataBody);
  out.rdata.length = static_cast<mDNSu16>(name_length(out.rdata.u.name));
  out.view = ResourceRecord{};
  out.view.rrtype = kDNSType_PTR;
  out.view.rrclass = kDNSClass_IN;
  out.view.rdlength = out.rdata.length;
  out.view.InterfaceID = interface_from_number(a.interface_slot);
  out.view.name = &out.name;
  out.view.namehash = state_of(a.browse).name_hash;
  out.view.rdata = &out.rdata;
  return true;
}

void call_back(mDNS* m, DNSQuestion* q, const ResourceRecord& rr, QC_result kind) {
  if (q->QuestionCallback != nullptr) {
    CallbackScope scope(m);
    q->QuestionCallback(m, q, &rr, kind);
  }
}

bool core_alive(mDNS* m) {
  return core_of(m).initialized;
}

// Forgets a remembered answer and tells its browse that the instance is gone.
void report_answer_gone(mDNS* m, int index) {
  CoreState& core = core_of(m);
  DetachedRecord gone;
  DNSQuestion* browse = core.answers[index].browse;
  const bool named = fill_detached(core, index, gone);
  browse_answer_forget(core, index);
  QuestionState& s = state_of(browse);
  if (s.current_answers > 0) {
    s.current_answers--;
  }
  if (named) {
    call_back(m, browse, gone.view, QC_rmv);
  }
}

// A PTR answer reaches a browse (new, or received again): reported once, and
// remembered until it goes away.
void report_to_browse(mDNS* m, DNSQuestion* browse, CacheRecord* rr) {
  CoreState& core = core_of(m);
  domainlabel instance;
  const domainname& target = rr->resrec.rdata->u.name;
  bool udp = false;
  if (!browse_instance_of(target, browse->qname, instance, udp)) {
    return;
  }
  const int known = browse_answer_find(core, browse, instance, rr->rdata_hash, rr->resrec.InterfaceID);
  if (known >= 0) {
    if (!rr->expiring) {
      browse_answer_renew(core, known, rr->resrec.rroriginalttl, rr->received);
      core.answers[known].one_shot = rr->source == Source::kOneShot;
    }
    return;
  }
  if (rr->expiring) {
    return;
  }
  int evicted = -1;
  const Admission admission = browse_answer_admit(core, rr->sender, evicted);
  if (admission == Admission::kRefused) {
    return;
  }
  if (admission == Admission::kMustEvict) {
    report_answer_gone(m, evicted);
    if (!core_alive(m) || !question_active(m, browse)) {
      return;
    }
  }
  const int remembered =
      browse_answer_remember(core, browse, instance, rr->rdata_hash, rr->resrec.InterfaceID, rr->sender,
                             rr->resrec.rroriginalttl, rr->received);
  if (remembered < 0) {
    return;
  }
  core.answers[remembered].under_udp = udp ? 1 : 0;
  core.answers[remembered].one_shot = rr->source == Source::kOneShot;
  state_of(browse).current_answers++;
  call_back(m, browse, rr->resrec, QC_add);
}

// A PTR answer as a browse callback sees it, straight from the message.
void view_of(const ParsedRecord& rec, DetachedRecord& out) {
  out.name = rec.name;
  out.rdata = rec.rdata;
  out.rdata.MaxRDLength = sizeof(RDataBody);
  out.view = ResourceRecord{};
  out.view.rrtype = rec.rrtype;
  out.view.rrclass = rec.rrclass;
  out.view.rroriginalttl = rec.ttl;
  out.view.rdlength = rec.rdata.length;
  out.view.InterfaceID = mDNSInterface_Any;
  out.view.name = &out.name;
  out.view.namehash = name_hash(rec.name);
  out.view.rdata = &out.rdata;
}

// One PTR of a unicast answer reaches one browse: renewed when reported
// already, otherwise remembered and reported.  False when the callback
// stopped the browse or the core.
bool unicast_ptr_to_browse(mDNS* m, DNSQuestion* browse, const ParsedRecord& rec, SenderSlot sender,
                           uint32_t seq) {
  CoreState& core = core_of(m);
  domainlabel instance;
  bool udp = false;
  if (!browse_instance_of(rec.rdata.u.name, browse->qname, instance, udp)) {
    return true;
  }
  const uint32_t hash = name_hash(rec.rdata.u.name);
  int index = browse_answer_find(core, browse, instance, hash, mDNSInterface_Any);
  if (index >= 0) {
    browse_answer_renew(core, index, rec.ttl, core.now);
    core.answers[index].seen = seq;
    return true;
  }
  int evicted = -1;
  const Admission admission = browse_answer_admit(core, sender, evicted);
  if (admission == Admission::kRefused) {
    return true;
  }
  if (admission == Admission::kMustEvict) {
    report_answer_gone(m, evicted);
    if (!core_alive(m) || !question_active(m, browse)) {
      return false;
    }
  }
  index = browse_answer_remember(core, browse, instance, hash, mDNSInterface_Any, sender, rec.ttl, core.now);
  if (index < 0) {
    return true;
  }
  core.answers[index].seen = seq;
  core.answers[index].under_udp = udp ? 1 : 0;
  state_of(browse).current_answers++;
  DetachedRecord added;
  view_of(rec, added);
  call_back(m, browse, added.view, QC_add);
  return core_alive(m) && question_active(m, browse);
}

// The browse's list is the answer's: what it no longer holds has gone.
void forget_unlisted(mDNS* m, DNSQuestion* browse, uint32_t seq) {
  CoreState& core = core_of(m);
  for (int i = browse_answers_first(core, browse); i >= 0;) {
    const int next = browse_answers_next(core, i);
    if (core.answers[i].seen != seq) {
      report_answer_gone(m, i);
      if (!core_alive(m) || !question_active(m, browse)) {
        return;
      }
    }
    i = next;
  }
}

void unicast_answer_to_browse(mDNS* m, DNSQuestion* browse, const MessageParser& answer, SenderSlot sender,
                              uint32_t seq) {
  MessageParser parser = answer;
  ParsedRecord rec;
  for (MessageParser::Result r; (r = parser.next_record(rec)) != MessageParser::Result::kEnd;) {
    if (r == MessageParser::Result::kMalformed) {
      return;  // a list cut short says nothing of what it would have held
    }
    if (r == MessageParser::Result::kOk && rec.section == Section::kAnswer && rec.ttl > 0 &&
        dns_answer_in_bailiwick(rec, *browse) && !unicast_ptr_to_browse(m, browse, rec, sender, seq)) {
      return;
    }
  }
  forget_unlisted(m, browse, seq);
}

void report_added(mDNS* m, DNSQuestion* q, CacheRecord* rr) {
  QuestionState& s = state_of(q);
  if (s.kind == QuestionKind::kBrowse) {
    report_to_browse(m, q, rr);
    return;
  }
  s.current_answers++;
  if (s.leader == nullptr && is_unique_type(q->qtype)) {
    asker_answered(m, q);
  }
  call_back(m, q, rr->resrec, QC_add);
}

// A record left on the network: the questions that had it hear so, and a
// unique question left without an answer asks again.
void report_gone(mDNS* m, DNSQuestion* q, CacheRecord* rr) {
  CoreState& core = core_of(m);
  QuestionState& s = state_of(q);
  if (s.kind == QuestionKind::kBrowse) {
    domainlabel instance;
    bool udp = false;
    const int known = browse_instance_of(rr->resrec.rdata->u.name, q->qname, instance, udp)
                          ? browse_answer_find(core, q, instance, rr->rdata_hash, rr->resrec.InterfaceID)
                          : -1;
    if (known >= 0) {
      report_answer_gone(m, known);
    }
    return;
  }
  if (s.current_answers > 0) {
    s.current_answers--;
  }
  call_back(m, q, rr->resrec, QC_rmv);
  if (!core_alive(m) || !question_active(m, q)) {
    return;
  }
  DNSQuestion* leader = leader_of(q);
  if (q == leader && is_unique_type(q->qtype) && s.current_answers == 0) {
    asker_ask_again(m, leader);
  }
}

// A record pushed out for space is no longer an answer its questions hold:
// a unique question whose group starts asking again (a twin joins it) must
// query rather than rest on an answer the cache has not got.
void uncount_evicted(mDNS* m, CacheRecord* rr) {
  QuestionWalk walk(m, rr->resrec.namehash);
  while (DNSQuestion* q = walk.next()) {
    QuestionState& s = state_of(q);
    if (s.kind != QuestionKind::kBrowse && s.delivered && s.current_answers > 0 &&
        question_answered_by(*q, rr->resrec)) {
      s.current_answers--;
      if (s.unicast) {
        state_of(leader_of(q)).dns.answer_evicted = true;
      }
    }
  }
}

}  // namespace

void record_added(mDNS* m, CacheRecord* rr) {
  QuestionWalk walk(m, rr->resrec.namehash);
  while (DNSQuestion* q = walk.next()) {
    // One still waiting for its first delivery will find the record then.
    if (!state_of(q).delivered || !question_answered_by(*q, rr->resrec)) {
      continue;
    }
    report_added(m, q, rr);
    if (!core_alive(m) || !rr->in_use) {
      return;
    }
  }
}

void record_renewed(mDNS* m, CacheRecord* rr) {
  if (rr->resrec.rrtype != kDNSType_PTR) {
    return;
  }
  QuestionWalk walk(m, rr->resrec.namehash);
  while (DNSQuestion* q = walk.next()) {
    const QuestionState& s = state_of(q);
    if (s.kind != QuestionKind::kBrowse || !s.delivered || !question_answered_by(*q, rr->resrec)) {
      continue;
    }
    report_to_browse(m, q, rr);
    if (!core_alive(m) || !rr->in_use) {
      return;
    }
  }
}

void record_departs(mDNS* m, CacheRecord* rr, Departure why) {
  CoreState& core = core_of(m);
  if (why == Departure::kEvicted) {
    // Pushed out for space, the record still exists on the network: nobody is
    // told, and the browses still remember it.
    core.counters.records_evicted++;
    if (!rr->add_pending) {
      uncount_evicted(m, rr);
    }
    cache_free(core, rr);
    return;
  }
  if (!rr->add_pending) {
    QuestionWalk walk(m, rr->resrec.namehash);
    while (DNSQuestion* q = walk.next()) {
      if (!state_of(q).delivered || !question_answered_by(*q, rr->resrec)) {
        continue;
      }
      report_gone(m, q, rr);
      if (!core_alive(m)) {
        return;
      }
    }
  }
  cache_free(core, rr);
}

void goodbye_for_uncached(mDNS* m, const ResourceRecord& goodbye) {
  CoreState& core = core_of(m);
  QuestionWalk walk(m, goodbye.namehash);
  while (DNSQuestion* q = walk.next()) {
    if (state_of(q).kind != QuestionKind::kBrowse || !question_answered_by(*q, goodbye)) {
      continue;
    }
    domainlabel instance;
    bool udp = false;
    if (!browse_instance_of(goodbye.rdata->u.name, q->qname, instance, udp)) {
      continue;
    }
    const int known =
        browse_answer_find(core, q, instance, name_hash(goodbye.rdata->u.name), goodbye.InterfaceID);
    if (known >= 0) {
      browse_answer_expire_soon(core, known, core.now);
    }
  }
}

void unicast_browse_answer(mDNS* m, DNSQuestion* leader, const MessageParser& answer, SenderSlot sender,
                           uint32_t seq) {
  QuestionWalk walk(m, state_of(leader).name_hash);
  while (DNSQuestion* q = walk.next()) {
    // Records of unicast DNS carry no interface: a browse bound to one is
    // not answered by them, as none of its questions are.
    if (state_of(q).delivered && leader_of(q) == leader && q->InterfaceID == mDNSInterface_Any) {
      unicast_answer_to_browse(m, q, answer, sender, seq);
      if (!core_alive(m)) {
        return;
      }
    }
  }
}

void deliver_cached_answers(mDNS* m, DNSQuestion* q) {
  CoreState& core = core_of(m);
  QuestionState& s = state_of(q);
  s.delivered = true;
  core.question_generation++;
  bool answered = false;
  for (CacheRecord* rr = cache_first(core, s.name_hash); rr != nullptr;) {
    CacheRecord* next = cache_next(core, rr);
    // A record in the second after a goodbye is still an answer (its owner may
    // correct the goodbye, and its removal is reported if not), but not one
    // that spares the question its queries.
    if (!rr->add_pending && question_answered_by(*q, rr->resrec)) {
      answered = answered || !rr->expiring;
      report_added(m, q, rr);
      // The callback may have stopped this very question, or the core.
      if (!core_alive(m) || !question_active(m, q)) {
        return;
      }
    }
    rr = next;
  }
  if (s.leader == nullptr) {
    asker_first_delivery(m, q, answered);
  } else if (!answered) {
    asker_member_unanswered(m, leader_of(q));
  }
}

void request_refresh(mDNS* m, const CacheRecord& rr) {
  QuestionWalk walk(m, rr.resrec.namehash);
  while (DNSQuestion* q = walk.next()) {
    const QuestionState& s = state_of(q);
    if (s.delivered && !s.listening && question_answered_by(*q, rr.resrec)) {
      asker_refresh(m, leader_of(q));
    }
  }
}

void browse_answer_due(mDNS* m, int index) {
  CoreState& core = core_of(m);
  BrowseAnswer& a = core.answers[index];
  if (time_reached(a.expiry, core.now)) {
    report_answer_gone(m, index);
    return;
  }
  // Its refresh point: the browse asks, whether or not the cache still holds the record.
  a.refresh_at = a.expiry;
  if (!state_of(a.browse).listening) {
    asker_refresh(m, leader_of(a.browse));
  }
}

void interface_gone(mDNS* m, mDNSInterfaceID interface_id) {
  CoreState& core = core_of(m);
  for (uint32_t i = 0; i < core.cache_size && core_alive(m); ++i) {
    CacheRecord* rr = cache_entry(core, i);
    if (rr != nullptr && rr->resrec.InterfaceID == interface_id) {
      record_departs(m, rr, Departure::kInterfaceGone);
    }
  }
  for (int i = 0; i < mDNS_MaxBrowseAnswers && core_alive(m); ++i) {
    if (core.answers[i].in_use && interface_from_number(core.answers[i].interface_slot) == interface_id) {
      report_answer_gone(m, i);
    }
  }
}

void sender_gone(mDNS* m, SenderSlot sender) {
  CoreState& core = core_of(m);
  for (uint32_t i = 0; i < core.cache_size && core_alive(m); ++i) {
    CacheRecord* rr = cache_entry(core, i);
    if (rr != nullptr && rr->sender == sender && rr->source != Source::kUnicastDns) {
      record_departs(m, rr, Departure::kVanished);
    }
  }
  for (int i = 0; i < mDNS_MaxBrowseAnswers && core_alive(m); ++i) {
    if (core.answers[i].in_use && core.answers[i].sender == sender) {
      report_answer_gone(m, i);
    }
  }
}

}  // namespace mdns
