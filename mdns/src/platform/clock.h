// Time arithmetic on the wrapping millisecond clock, and the core's randomness.
#pragma once

#include <cstdint>

namespace mdns {

// Signed distance from `from` to `to`; correct across the clock's wrap.
inline int32_t time_diff(int32_t to, int32_t from) {
  return static_cast<int32_t>(static_cast<uint32_t>(to) - static_cast<uint32_t>(from));
}

inline bool time_reached(int32_t when, int32_t now) {
  return time_diff(when, now) <= 0;
}

inline int32_t time_add(int32_t t, int64_t delta) {
  return static_cast<int32_t>(static_cast<uint32_t>(t) + static_cast<uint32_t>(delta));
}

// The earlier of two times.
inline int32_t time_min(int32_t a, int32_t b) {
  return time_diff(a, b) <= 0 ? a : b;
}

// Uniform in [low, high]; the state lives in the core (no hidden globals).
uint32_t random_between(uint32_t& state, uint32_t low, uint32_t high);

}  // namespace mdns
