// The core's list of active questions and the delivery of answer events to them.
#pragma once

#include <cstdint>

#include "mdns/mdns.h"

namespace mdns {

constexpr int32_t kMaxQueryInterval = 60 * 60 * 1000;

// Membership is decided by the core's own list, never by the caller's struct.
bool question_is_active(const mDNS* m, const DNSQuestion* q);

bool question_answered_by(const DNSQuestion& q, const ResourceRecord& rr);

// SRV, TXT, A and AAAA: one owner answers them, so a cached answer makes a
// query unnecessary until its refresh is due.
bool is_unique_type(uint16_t rrtype);

bool record_answers_active_question(const mDNS* m, const ResourceRecord& rr);

// Adds the question to the list; its cached answers are delivered at the next
// event processing.
mStatus question_start(mDNS* m, DNSQuestion* q, int32_t now);
void question_stop(mDNS* m, DNSQuestion* q);

// Tells every active question the record answers that it was added or removed.
// Questions still waiting for their first delivery of cached answers are
// skipped: that delivery will see the cache as it is then.
void deliver_record_event(mDNS* m, CacheRecord* rr, QC_result kind, int32_t now);

// Delivers the cached answers of newly started questions.
void deliver_pending_adds(mDNS* m, int32_t now);

bool any_adds_pending(const mDNS* m);

}  // namespace mdns
