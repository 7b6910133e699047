// What each browse has reported: every instance it gave an add event for and
// no remove event yet, kept apart from the cache in bounded storage.  With it
// a full cache can push PTR records out without anybody noticing: the browse
// reports no removal then, no second add when the record comes back, and still
// a removal when the instance goes away (goodbye, or no answer by its expiry).
#pragma once

#include <cstdint>

#include "engine/core_state.h"

namespace mdns {

void browse_answers_reset(CoreState& core);

// The remembered answer of `browse` for an instance on the interface, or -1.
// `hash` is the full instance name's (the PTR record's data hash).
int browse_answer_find(CoreState& core, const DNSQuestion* browse, const domainlabel& instance, uint32_t hash,
                       mDNSInterfaceID interface_id);

// Makes room for and remembers a new answer.  When the memory is full, the
// sender that holds the most answers gives one up: if that is this answer's own
// sender the new answer is refused (-1); otherwise `evicted` receives the
// index of the answer to report as removed first (and the caller forgets it).
// Returns the index of the new answer, or -1.
enum class Admission { kAdmitted, kRefused, kMustEvict };
Admission browse_answer_admit(CoreState& core, SenderSlot sender, int& evicted);
int browse_answer_remember(CoreState& core, DNSQuestion* browse, const domainlabel& instance, uint32_t hash,
                           mDNSInterfaceID interface_id, SenderSlot sender, uint32_t ttl, int32_t now);
void browse_answer_renew(CoreState& core, int index, uint32_t ttl, int32_t now);
// A goodbye: it leaves in one second.
void browse_answer_expire_soon(CoreState& core, int index, int32_t now);
void browse_answer_forget(CoreState& core, int index);

// The first of a browse's answers, and the next (-1 at the end).
int browse_answers_first(const CoreState& core, const DNSQuestion* browse);
int browse_answers_next(const CoreState& core, int index);
// Forgets all of them, without events (the browse stops).
void browse_answers_forget_all(CoreState& core, const DNSQuestion* browse);

// Times: answers due for a refresh query (80 % of their TTL) or past expiry.
// `visit` is called for each such answer; the walk is a full scan, done only
// when the earliest of those times has come.
bool browse_answers_next_time(const CoreState& core, int32_t& when);
template <class Visit>
void browse_answers_due(CoreState& core, int32_t now, Visit visit);

// The full instance name of an answer.
bool browse_answer_name(const CoreState& core, int index, domainname& out);

// The label by which a browse's PTR answer names its instance, and whether it
// is a _udp type of the type list.  Instances sit directly under the browsed
// name, those of a subtype (_printer._sub.<type>) under the type, and the
// answers of the type list (_services._dns-sd._udp.<domain>) name types,
// <_app>.<_tcp|_udp>.<domain>, told by their first label.
bool browse_instance_of(const domainname& target, const domainname& qname, domainlabel& instance, bool& udp);

// ---- inline ----

void browse_answers_recompute_next(CoreState& core);

template <class Visit>
void browse_answers_due(CoreState& core, int32_t now, Visit visit) {
  if (!core.answers_expiry_known || !time_reached(core.answers_next_expiry, now)) {
    return;
  }
  for (int i = 0; i < mDNS_MaxBrowseAnswers; ++i) {
    BrowseAnswer& a = core.answers[i];
    if (a.in_use && (time_reached(a.expiry, now) || time_reached(a.refresh_at, now))) {
      visit(i);
    }
  }
  browse_answers_recompute_next(core);
}

}  // namespace mdns
