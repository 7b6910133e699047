// What arrivals and departures of records mean, and their delivery to the
// questions.  The cache only stores; these functions decide which events a
// change of the cache makes and hand them to the callbacks.
#pragma once

#include "engine/core_state.h"
#include "wire/message_reader.h"

namespace mdns {

// Why a record leaves the cache.
enum class Departure {
  kExpired,        // its TTL ran out
  kGoodbye,        // TTL 0 received, or flushed by a newer record of its set: one second later
  kInterfaceGone,  // the interface it arrived on went away
  kVanished,       // its sender no longer answers (see devices.h)
  kEvicted,        // the full cache needed its entry: it still exists on the network
};

// A record entered the cache with the packet just processed.
void record_added(mDNS* m, CacheRecord* rr);
// A cached record was received again.
void record_renewed(mDNS* m, CacheRecord* rr);
// The one place that decides what a departure means: delivers it (or not) and
// frees the entry.
void record_departs(mDNS* m, CacheRecord* rr, Departure why);

// A goodbye for a PTR record the cache no longer holds: a browse that
// reported the instance reports its removal one second later.
void goodbye_for_uncached(mDNS* m, const ResourceRecord& goodbye);

// A unicast DNS answer to a group of browses (packet number `seq`): its PTR
// records are the whole list, which the browses' memory of reported
// instances keeps rather than the cache (one PTR set may be larger than the
// cache): new instances are added, those it no longer lists removed.
void unicast_browse_answer(mDNS* m, DNSQuestion* leader, const MessageParser& answer, SenderSlot sender,
                           uint32_t seq);

// The first delivery of a new question: what the cache holds.
void deliver_cached_answers(mDNS* m, DNSQuestion* q);

// A cached record reached a refresh point: the questions it answers ask again.
void request_refresh(mDNS* m, const CacheRecord& rr);

// Remembered browse answers whose refresh point or expiry has come.
void browse_answer_due(mDNS* m, int index);

// Everything of a vanished interface leaves, with remove events.
void interface_gone(mDNS* m, mDNSInterfaceID interface_id);
// Everything a host of the link sent leaves, with remove events: its cached
// records and the browse answers remembered of it.
void sender_gone(mDNS* m, SenderSlot sender);

}  // namespace mdns
