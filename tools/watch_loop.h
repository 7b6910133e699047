// What the commands that watch the link share: the browser's callbacks hand
// their events over to the main thread, which waits for them, the deadline
// or Ctrl-C / SIGTERM.
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "sorvalen/service_browser.h"

// Events from the browser's thread, taken in order by the main thread.
template <typename Event>
class EventInbox {
 public:
  void Put(Event event) {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(std::move(event));
  }
  std::vector<Event> Take() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(events_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<Event> events_;
};

// Blocks SIGINT and SIGTERM in this thread and in the threads it starts after,
// so that only WatchUntil takes them.  Call before the browser starts.
void block_stop_signals();

struct WatchEnd {
  int stop_signal = 0;  // SIGINT or SIGTERM when one ended the watch
  double seconds = 0;   // how long it ran
};

// Calls `step` about every 100 ms, until `timeout_seconds` pass (0: no limit),
// `step` returns false, or a stop signal comes.  `elapsed` shows progress.
WatchEnd watch_until(int timeout_seconds, const std::function<bool(double elapsed)>& step);

// Starts the browser, or says why it cannot on stderr; false then (exit 2).
bool start_browser(const char* command, sorvalen::ServiceBrowser* browser);

// The status line on stderr, shown only on a terminal.
class StatusLine {
 public:
  explicit StatusLine(int timeout_seconds);
  void Show(double elapsed_seconds, size_t shown, const char* what);
  void Clear();

 private:
  bool terminal_;
  int timeout_seconds_;
  bool shown_ = false;
};
