// The core's list of active questions and the delivery of answer events to them.
#pragma once

#include <cstdint>

#include "mdns/mdns.h"

namespace mdns {

constexpr int32_t kMaxQueryInterval = 60 * 60 * 1000;

// Membership is decided by the core's own list, never by the caller's struct.
bool question_is_active(const mDNS* m, const DNSQuestion* q);

// Same name, type and class: the questions ask the same thing on the wire.
bool same_question(const DNSQuestion& a, const DNSQuestion& b);

bool question_answered_by(const DNSQuestion& q, const ResourceRecord& rr);

// SRV, TXT, A and AAAA: one owner answers them, so a cached answer makes a
// query unnecessary until its refresh is due.
bool is_unique_type(uint16_t rrtype);

bool record_answers_active_question(const mDNS* m, const ResourceRecord& rr);

// Adds the question to the list; its cached answers are delivered at the next
// event processing.
mStatus question_start(mDNS* m, DNSQuestion* q, int32_t now);
void question_stop(mDNS* m, DNSQuestion* q);

// The question queries again from the start (an identical question already
// querying sets the pace), whatever its cache holds.
void question_ask_again(mDNS* m, DNSQuestion* q, int32_t now);

// Tells every active question the record answers that it was added or removed.
// Questions still waiting for their first delivery of cached answers are
// skipped: that delivery will see the cache as it is then.
// Why a record leaves: it went away on the network (expiry, goodbye, flush,
// interface gone), or the full cache pushed it out to make room.
enum class RemoveCause { kGone, kEvicted };

void deliver_record_event(mDNS* m, CacheRecord* rr, QC_result kind, int32_t now,
                          RemoveCause cause = RemoveCause::kGone);

// Delivers the cached answers of newly started questions.
void deliver_pending_adds(mDNS* m, int32_t now);

bool any_adds_pending(const mDNS* m);

}  // namespace mdns
