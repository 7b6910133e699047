// Which entry a full cache gives up for a new record.
//
// First an entry that answers no question that still asks (nearest expiry
// first).  Only when there is none, an entry that a question needs, taken from
// the sender that holds the most entries, so that a host flooding the link
// pushes out its own records rather than everybody else's; of that sender's
// entries the one whose loss the application would notice least: a resolve's
// SRV and TXT (read once by the resolve that asked), then addresses (which the
// other instances of their host still need), then a browse's PTR answers,
// nearest expiry first.  Entries whose first delivery is still to come are
// never given up.
#pragma once

#include "engine/core_state.h"

namespace mdns {

enum Importance : uint8_t {
  kIdle = 0,          // no question that asks needs it
  kNeeded = 1,        // answers a question that asks (a resolve's SRV or TXT, a plain query)
  kAddress = 2,       // an address a resolve asks for: its host's other instances share it
  kBrowseAnswer = 3,  // a PTR answer of a browse that asks
  kPinned = 4,        // in the packet being stored, or not yet delivered: never given up
};

Importance importance_of(mDNS* m, CacheRecord* rr);

// The entry to give up, or null when every entry is pinned.
CacheRecord* choose_victim(mDNS* m);

// An entry's expiry changed, or it was delivered: it may now be the next to go.
void note_victim_candidate(mDNS* m, CacheRecord* rr);

}  // namespace mdns
