// When a watched thing's changes may be told: a burst of changes is told once,
// after it settles a little, and one thing that keeps changing is told at a
// falling rate (gaps doubling up to a limit), so that a device cannot flood
// the application with updates.  The first change after a quiet time (such
// as the rest of a device's addresses, right after its first) only settles.
#pragma once

#include <cstdint>

namespace sorvalen::browser {

class UpdatePacer {
 public:
  static constexpr int64_t kSettleMs = 100;
  static constexpr int64_t kFirstGapMs = 1000;
  static constexpr int64_t kLongestGapMs = 32000;

  // A change at `now`; the time it is due is due().
  void Changed(int64_t now);
  // The change was told (or found to need no telling) at `now`.
  void Told(int64_t now);
  bool pending() const { return due_ >= 0; }
  int64_t due() const { return due_; }  // -1 when nothing is pending

 private:
  int64_t due_ = -1;
  int64_t last_told_ = -1;
  int64_t gap_ = 0;  // the least time from the last telling to the next
};

}  // namespace sorvalen::browser
