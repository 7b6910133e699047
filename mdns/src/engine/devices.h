// Devices that vanish without a goodbye (power cut, cable pulled), and
// goodbyes that a device did not send.
//
// A device is a host of the link whose records are cached (a slot of the
// sender table; a host whose IPv4 and IPv6 addresses both brought records is
// two, tied by its address records so that either one heard counts for both).
// Whatever is accepted from it shows that it is there, so a busy device costs
// nothing.  While its records answer questions that ask, a
// device not heard for a while gets a probe: a one-shot to its own address
// and port 5353 (RFC 6762 sections 5.1, 5.5 and 6.7) for one of the records
// it holds, an address or SRV before anything bigger, which a live device
// answers at once.  No answer within a second: a second probe; none again: its records
// leave with the usual remove events.  A device is probed every
// max(10 s, N / 8 s) for N such devices, so probes stay within the send
// governor's budget (ten a second) whatever N is, leaving room for the
// second probes and the checks below.
//
// A goodbye for a cached link record does not come from the record's sender
// necessarily: anybody on the link can send one.  So the sender the record
// came from is asked for the record's name and type; when it answers with the
// record within the goodbye's second, the record stays with the lifetime it
// had.  Those checks take at most half of the probe budget: a storm of
// goodbyes only makes the goodbyes beyond it count as they would without the
// check.
#pragma once

#include <cstdint>

#include "engine/core_state.h"

namespace mdns {

constexpr int32_t kMinProbeIntervalMs = 10000;
// Devices probed per second at most in the long run (the interval's N / 8 s).
constexpr int32_t kDevicesPerSecond = 8;
constexpr int32_t kProbeWaitMs = 1000;

void devices_reset(CoreState& core);

// Something of the sender's was accepted on the interface.
void device_heard(mDNS* m, SenderSlot sender, mDNSInterfaceID interface_id);
// A goodbye came for a cached record of the link (already marked by cache_goodbye).
void device_goodbye(mDNS* m, const CacheRecord& rr);

// Sends the probes that are due, removes the devices that did not answer.
void devices_run(mDNS* m);
// When devices_run next has work.
int32_t devices_next_time(const mDNS* m);

}  // namespace mdns
