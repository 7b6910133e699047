// The one budget every packet the core sends goes through, so that nothing
// the network sends can make the querier send much more than it does on a
// quiet link:
//  - a question asks at most once a second, refreshes included (RFC 6762
//    section 5.2 sets this for the first two queries; here it holds always);
//  - records shorter-lived than a floor get no refresh queries
//    (kRefreshTtlFloorSeconds, applied where refresh points are planned);
//  - a query carries at most a few packets of known answers;
//  - each interface has a rate of packets, of which new questions (first
//    queries, one-shots) may use all and the rest of the traffic only what is
//    left above a reserve.
// One-shots also take from a smaller bucket of their own; probes of devices
// (one-shots to one host) from theirs, whatever the number of devices: at
// most kProbesPerSecond, those after a goodbye at most half of them.
#pragma once

#include <cstdint>

#include "ask/ask_state.h"
#include "platform/platform.h"

namespace mdns {

constexpr int32_t kMinQueryIntervalMs = 1000;
// The packet with the questions and up to three more with known answers.
constexpr int kMaxKnownAnswerPackets = 4;

enum class SendPriority : uint8_t { kNewQuestion, kRoutine };

void governor_reset(AskState& core);

// When the group led by `leader` may next send a query (now or later).
int32_t governor_next_query_allowed(const QuestionState& leader);
bool governor_may_query(const QuestionState& leader, int32_t now);
void governor_note_query(QuestionState& leader, int32_t now);

// Sends one message to the mDNS group of the family out of the interface
// (from port 5353, or from the one-shot port), and counts it.
void governor_send(mDNS* m, Transport transport, mDNSInterfaceID interface_id, int family,
                   const uint8_t* message, size_t length);

constexpr int32_t kProbesPerSecond = 10;

// Sends one message from the one-shot port to port 5353 of one host, and counts it.
bool governor_send_to_host(mDNS* m, mDNSInterfaceID interface_id, const mDNSAddr& to, const uint8_t* message,
                           size_t length);

// Takes one probe from the probes' budget (and a goodbye's check also from its
// own); false when there is none now.
enum class ProbeKind : uint8_t { kLiveness, kGoodbyeCheck };
bool governor_take_probe(AskState& core, ProbeKind kind);
// When the next probe of the kind may go, as far as the budget goes.
int32_t governor_next_probe(const AskState& core, ProbeKind kind);

// Takes one packet from the interface's budget; false when there is none for
// this priority now.
bool governor_take_packet(AskState& core, mDNSInterfaceID interface_id, SendPriority priority);
// Takes one packet from the one-shots' own bucket.
bool governor_take_one_shot(AskState& core);

}  // namespace mdns
