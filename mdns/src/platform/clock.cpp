#include "platform/clock.h"

namespace mdns {

uint32_t random_between(uint32_t& state, uint32_t low, uint32_t high) {
  // xorshift32: cheap, and good enough to spread query times and pick IDs.
  uint32_t x = state != 0 ? state : 0x9e3779b9u;
  x ^= x << 13;
  x ^= x >> 17;
  x ^= x << 5;
  state = x;
  if (high <= low) {
    return low;
  }
  return low + x % (high - low + 1);
}

}  // namespace mdns
