// Storing received records, shared by the multicast, one-shot and unicast DNS paths.
#pragma once

#include <cstdint>

#include "engine/core_state.h"

namespace mdns {

struct ParsedRecord;

struct RecordOrigin {
  mDNSInterfaceID interface_id;  // null for unicast DNS
  Source source;
  SenderSlot sender;  // sender table slot
};

// Caches one accepted record (or honours its goodbye, or its cache-flush bit),
// giving up an entry for it when the cache is full.  Its events wait for
// finish_packet, so that a packet is cached whole before anybody hears of it.
void store_record(mDNS* m, const ParsedRecord& rec, const RecordOrigin& origin);
void finish_packet(mDNS* m);

}  // namespace mdns
