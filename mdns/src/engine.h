// The engine's entry points for the platform layer and for tests.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mdns/mdns.h"

namespace mdns {

// One received datagram.  `now` is the pass's single clock reading.  The engine
// applies the acceptance checks (source port 5353, QR, OPCODE 0, RCODE 0, source
// on the link of the arrival interface), caches the records and delivers events.
void engine_receive(mDNS* m, const uint8_t* message, size_t length, const mDNSAddr& source,
                    mDNSIPPort source_port, mDNSInterfaceID interface_id, int32_t now);

// Runs everything due at `now`: deferred deliveries, expiries, queries, refreshes.
void engine_run_scheduled(mDNS* m, int32_t now);

// Milliseconds from `now` until the engine next has work (0 = at once).
int32_t engine_time_to_next_event(const mDNS* m, int32_t now);

// An interface vanished: its cached records leave with remove events.
void engine_interface_removed(mDNS* m, mDNSInterfaceID interface_id, int32_t now);

// The pass's one clock reading: the fake clock when set, else platform_now_ms().
int32_t engine_now(const mDNS* m);

// Tests and benchmarks: a fixed clock instead of the monotonic one (0 = real clock).
void engine_set_fake_clock(mDNS* m, int32_t now);

}  // namespace mdns
