#include "ask/send_governor.h"

#include <algorithm>

#include "platform/clock.h"

namespace mdns {
namespace {

// Per interface: a burst of 64 packets, 32 a second after it; what is not a
// new question leaves 16 of them for those.
constexpr int32_t kBudgetBurst = 64;
constexpr int32_t kBudgetPerSecond = 32;
constexpr int32_t kNewQuestionReserve = 16;
constexpr int32_t kMsPerPacket = 1000 / kBudgetPerSecond;

void refill(SendBudget& b, int32_t now) {
  const int32_t elapsed = time_diff(now, b.refilled);
  if (elapsed < kMsPerPacket) {
    return;
  }
  const int32_t earned = elapsed / kMsPerPacket;
  b.tokens = std::min(b.tokens + earned, kBudgetBurst);
  b.refilled =
      b.tokens == kBudgetBurst ? now : time_add(b.refilled, static_cast<int64_t>(earned) * kMsPerPacket);
}

}  // namespace

void governor_reset(AskState& core) {
  for (SendBudget& b : core.budgets) {
    b.tokens = kBudgetBurst;
    b.refilled = core.now;
  }
}

int32_t governor_next_query_allowed(const QuestionState& leader) {
  return time_add(leader.last_sent, kMinQueryIntervalMs);
}

bool governor_may_query(const QuestionState& leader, int32_t now) {
  return leader.queries_sent == 0 || time_reached(governor_next_query_allowed(leader), now);
}

void governor_note_query(QuestionState& leader, int32_t now) {
  leader.last_sent = now;
  leader.queries_sent++;
}

void governor_send(mDNS* m, Transport transport, mDNSInterfaceID interface_id, int family,
                   const uint8_t* message, size_t length) {
  AskState& core = ask_of(m);
  if (platform_send_multicast(m, transport, interface_id, family, message, length)) {
    core.counters.packets_sent++;
    core.counters.bytes_sent += static_cast<uint32_t>(length);
  }
}

bool governor_take_packet(AskState& core, mDNSInterfaceID interface_id, SendPriority priority) {
  SendBudget& b = core.budgets[interface_number(interface_id) % kSendBudgets];
  refill(b, core.now);
  const int32_t floor = priority == SendPriority::kNewQuestion ? 0 : kNewQuestionReserve;
  if (b.tokens <= floor) {
    return false;
  }
  b.tokens--;
  return true;
}

}  // namespace mdns
