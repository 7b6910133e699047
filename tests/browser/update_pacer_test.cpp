// How often a watched thing's changes are told, on a clock of our own.
#include "browser/update_pacer.h"

#include <gtest/gtest.h>

namespace sorvalen::browser {
namespace {

// Changes every `period_ms` for `total_ms` from `start`; returns how many were told.
int told_while_changing(UpdatePacer* pacer, int64_t start, int64_t period_ms, int64_t total_ms) {
  int told = 0;
  for (int64_t now = start; now < start + total_ms; now += 10) {
    if ((now - start) % period_ms == 0)
      pacer->Changed(now);
    if (pacer->pending() && now >= pacer->due()) {
      pacer->Told(now);
      ++told;
    }
  }
  return told;
}

TEST(UpdatePacer, ToldABurstOnceAndAHostThatKeepsChangingAtAFallingRate) {
  UpdatePacer pacer;
  // A burst within the settling time is one update.
  pacer.Changed(0);
  pacer.Changed(50);
  EXPECT_EQ(pacer.due(), UpdatePacer::kSettleMs);
  pacer.Told(pacer.due());
  // A change every 10 ms for ten minutes: gaps double up to the longest.
  const int told = told_while_changing(&pacer, 200, 10, 600000);
  EXPECT_LE(told, 6 + 600000 / UpdatePacer::kLongestGapMs);
  // Once it has been quiet, the next change is told promptly again.
  if (pacer.pending())
    pacer.Told(pacer.due());
  pacer.Changed(2000000);
  EXPECT_EQ(pacer.due(), 2000000 + UpdatePacer::kSettleMs);
}

}  // namespace
}  // namespace sorvalen::browser
