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
// Probes: one every 100 ms, so that no second ever holds more than ten.
constexpr int32_t kProbeBurst = 1;
constexpr int32_t kChecksPerSecond = kProbesPerSecond / 2;
constexpr int32_t kCheckBurst = 2;

// Takes a packet when more than `floor` are left after refilling.
bool take(SendBudget& b, int32_t burst, int32_t per_second, int32_t floor, int32_t now) {
  const int32_t ms_per_packet = 1000 / per_second;
  if (time_diff(now, b.refilled) < 0) {
    b.refilled = now;  // another clock since the reset (a test's fake one)
  }
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

// When a bucket next holds a packet (now when it does).
int32_t next_token(const SendBudget& b, int32_t per_second, int32_t now) {
  const int32_t ms_per_packet = 1000 / per_second;
  const int32_t elapsed = time_diff(now, b.refilled);
  if (b.tokens > 0 || elapsed >= ms_per_packet || elapsed < 0) {
    return now;
  }
  return time_add(b.refilled, ms_per_packet);
}

}  // namespace

void governor_reset(AskState& core) {
  for (SendBudget& b : core.budgets) {
    b = SendBudget{kBudgetBurst, core.now};
  }
  core.one_shot_budget = SendBudget{kOneShotBurst, core.now};
  core.probe_budget = SendBudget{kProbeBurst, core.now};
  core.check_budget = SendBudget{kCheckBurst, core.now};
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

bool governor_send_to_host(mDNS* m, mDNSInterfaceID interface_id, const mDNSAddr& to, const uint8_t* message,
                           size_t length) {
  AskState& core = ask_of(m);
  if (!platform_send_to_host(m, interface_id, to, message, length)) {
    return false;
  }
  core.counters.packets_sent++;
  core.counters.bytes_sent += static_cast<uint32_t>(length);
  return true;
}

bool governor_take_probe(AskState& core, ProbeKind kind) {
  if (kind == ProbeKind::kGoodbyeCheck && governor_next_probe(core, kind) != core.now) {
    return false;  // both buckets or none
  }
  return (kind == ProbeKind::kLiveness ||
          take(core.check_budget, kCheckBurst, kChecksPerSecond, 0, core.now)) &&
         take(core.probe_budget, kProbeBurst, kProbesPerSecond, 0, core.now);
}

int32_t governor_next_probe(const AskState& core, ProbeKind kind) {
  int32_t when = next_token(core.probe_budget, kProbesPerSecond, core.now);
  if (kind == ProbeKind::kGoodbyeCheck) {
    const int32_t check = next_token(core.check_budget, kChecksPerSecond, core.now);
    when = time_diff(check, when) > 0 ? check : when;
  }
  return when;
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
