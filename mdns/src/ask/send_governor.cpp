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
// One-shots, all interfaces together: a storm of changed SRV records restarts
// address questions at its own pace, the one-shots they ask for go at this one.
constexpr int32_t kOneShotBurst = 32;
constexpr int32_t kOneShotsPerSecond = 16;

// Takes a packet when more than `floor` are left after refilling.
bool take(SendBudget& b, int32_t burst, int32_t per_second, int32_t floor, int32_t now) {
  const int32_t ms_per_packet = 1000 / per_second;
  const int32_t elapsed = time_diff(now, b.refilled);
  if (elapsed >= ms_per_packet) {
    const int32_t earned = elapsed / ms_per_packet;
    b.tokens = std::min(b.tokens + earned, burst);
    b.refilled = b.tokens == burst ? now : time_add(b.refilled, static_cast<int64_t>(earned) * ms_per_packet);
  }
  if (b.tokens <= floor) {
    return false;
  }
  b.tokens--;
  return true;
}

}  // namespace

void governor_reset(AskState& core) {
  for (SendBudget& b : core.budgets) {
    b = SendBudget{kBudgetBurst, core.now};
  }
  core.one_shot_budget = SendBudget{kOneShotBurst, core.now};
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
  const int32_t floor = priority == SendPriority::kNewQuestion ? 0 : kNewQuestionReserve;
  return take(b, kBudgetBurst, kBudgetPerSecond, floor, core.now);
}

bool governor_take_one_shot(AskState& core) {
  return take(core.one_shot_budget, kOneShotBurst, kOneShotsPerSecond, 0, core.now);
}

}  // namespace mdns
