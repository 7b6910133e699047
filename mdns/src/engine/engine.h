// The engine's entry points for the platform layer and for tests, and the
// events it delivers.
#pragma once

#include <cstddef>
#include <cstdint>

#include "engine/core_state.h"
#include "platform/platform.h"

namespace mdns {

// Where a received datagram came from and on which socket.
struct Arrival {
  mDNSAddr source;
  mDNSIPPort source_port;
  mDNSInterfaceID interface_id;  // null for unicast DNS
  Transport transport;
  uint8_t ttl;  // the IPv4 TTL or IPv6 hop limit it came with; 0 when unknown
};

// One received datagram.  The pass's clock reading is `core.now`.  The engine
// applies the acceptance checks, caches the records and delivers events.
void engine_receive(mDNS* m, const uint8_t* message, size_t length, const Arrival& arrival);

// Delivers the cached answers of questions started since (a bounded number of
// rounds: questions started by those deliveries' callbacks wait for the next pass).
void engine_deliver_waiting(mDNS* m);

// One pass: reads the clock once, then runs everything due: deliveries of
// cached answers, expiries, refresh and continuous queries, one-shot queries,
// unicast DNS retransmissions.
void engine_run_scheduled(mDNS* m);
// The pass's clock reading: the fake clock when set, else the platform's.
void engine_begin_pass(mDNS* m);

// Milliseconds from `now` until the engine next has work (0 = at once).
int32_t engine_time_to_next_event(mDNS* m, int32_t now);

// Re-reads the interfaces, then acts on what went and came (below).
mStatus engine_refresh_interfaces(mDNS* m);
// An interface vanished: its cached records leave with remove events.
void engine_interface_removed(mDNS* m, mDNSInterfaceID interface_id);
// An interface came (or came back): the questions for it ask from the start.
void engine_interface_added(mDNS* m, mDNSInterfaceID interface_id);

int32_t engine_now(const mDNS* m);
// The time for work outside the packet path: the pass's reading inside a pass,
// else a fresh one (an application thread starting a question).
int32_t engine_clock(mDNS* m);
// Tests and benchmarks: a fixed clock instead of the monotonic one (0 = real clock).
void engine_set_fake_clock(mDNS* m, int32_t now);

// The core's counters, for tests and benchmarks.
const Counters& engine_counters(const mDNS* m);

}  // namespace mdns
