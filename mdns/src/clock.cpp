#include "clock.h"

#include "engine.h"
#include "platform.h"

namespace mdns {

uint32_t random_between(mDNS* m, uint32_t low, uint32_t high) {
  // xorshift32: cheap, and good enough to spread query times apart.
  uint32_t x = m->RandomState != 0 ? m->RandomState : 0x9e3779b9u;
  x ^= x << 13;
  x ^= x >> 17;
  x ^= x << 5;
  m->RandomState = x;
  if (high <= low) {
    return low;
  }
  return low + x % (high - low + 1);
}

int32_t engine_now(const mDNS* m) {
  return m->FakeClockSet ? m->FakeClock : platform_now_ms();
}

void engine_set_fake_clock(mDNS* m, int32_t now) {
  m->FakeClockSet = now != 0;
  m->FakeClock = now;
}

}  // namespace mdns
