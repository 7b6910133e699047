#include "browser/update_pacer.h"

#include <algorithm>

namespace sorvalen::browser {

void UpdatePacer::Changed(int64_t now) {
  if (due_ >= 0)
    return;
  due_ = now + kSettleMs;
  if (last_told_ >= 0)
    due_ = std::max(due_, last_told_ + gap_);
}

void UpdatePacer::Told(int64_t now) {
  // Quiet for twice the gap (and two seconds at least): the thing has settled
  // and its next change only settles; otherwise it waits longer each time.
  if (last_told_ >= 0 && now - last_told_ < 2 * std::max(gap_, kFirstGapMs)) {
    gap_ = gap_ == 0 ? kFirstGapMs : std::min(gap_ * 2, kLongestGapMs);
  } else {
    gap_ = 0;
  }
  last_told_ = now;
  due_ = -1;
}

}  // namespace sorvalen::browser
