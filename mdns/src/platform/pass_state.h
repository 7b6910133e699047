// The state every layer of the core sees: the pass's clock reading, the
// randomness, the platform's storage and what was counted.  The layers above
// extend it in turn (CacheStore, AskState, CoreState), so each sees its own
// state and that of the layers below, never more.
#pragma once

#include <cstdint>

#include "mdns/mdns.h"

namespace mdns {

struct Counters {
  uint32_t packets_sent;
  uint32_t bytes_sent;
  uint32_t queries_sent;  // questions written into sent packets
  uint32_t one_shots_sent;
  uint32_t probes_sent;  // one-shots to one device (see engine/devices.h)
  uint32_t unicast_queries_sent;
  uint32_t packets_received;
  uint32_t packets_accepted;
  uint32_t packets_dropped;
  uint32_t records_cached;
  uint32_t records_evicted;
  uint32_t records_refused;  // no room, nothing evictable
  uint32_t answers_refused;  // browse memory full, and the sender holds the most
};

struct PassState {
  uint32_t magic;
  mDNS_PlatformSupport* platform;
  bool initialized;
  int32_t now;  // the one clock reading of the current pass
  uint32_t random_state;
  Counters counters;
};

// The core's state as this layer sees it (defined with the core's own state).
PassState& pass_of(mDNS* m);

// Interface IDs are small numbers (a slot of the interface table, 0 for any).
inline uint8_t interface_number(mDNSInterfaceID id) {
  return static_cast<uint8_t>(reinterpret_cast<uintptr_t>(id));
}
inline mDNSInterfaceID interface_from_number(uint8_t number) {
  return reinterpret_cast<mDNSInterfaceID>(static_cast<uintptr_t>(number));
}

}  // namespace mdns
