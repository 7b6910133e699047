// What the browser's core thread keeps for one watch (a browse, the type
// list, a host): its questions, what their answers make of it, and the events
// it has to tell.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "browser/core_question.h"

namespace sorvalen::browser {

// What a watch's questions need of the core.
struct WatchContext {
  mDNS* core = nullptr;
  QuestionGraveyard* graveyard = nullptr;
};

// One callback of the application, ready to run outside the core.
struct Delivery {
  uint64_t watch = 0;
  std::function<void()> call;
};

class Watch : public AnswerListener {
 public:
  explicit Watch(WatchContext* context) : context_(context) {}
  // Asks the watch's first questions; false when the core refuses them.
  virtual bool Begin() = 0;
  // Stops every question.
  virtual void End() = 0;
  // The events due at `now`, appended to `out` for watch `id`.
  virtual void Collect(uint64_t id, int64_t now, std::vector<Delivery>* out) = 0;
  // When Collect has work next (monotonic ms), or -1.
  virtual int64_t NextDue() const = 0;

 protected:
  WatchContext* context_;
};

}  // namespace sorvalen::browser
