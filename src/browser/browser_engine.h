// The engine behind ServiceBrowser: the core session, the watches the core
// thread keeps, the requests other threads queue for it, and the rules by which
// callbacks run (never after their watch is cancelled, never inside the core).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "browser/core_session.h"
#include "browser/watch.h"
#include "sorvalen/service_browser.h"

namespace sorvalen::browser {

class BrowserEngine {
 public:
  using Threading = ServiceBrowser::Threading;
  using WatchFactory = std::function<std::unique_ptr<Watch>(WatchContext*)>;

  explicit BrowserEngine(Threading threading) : threading_(threading) {}
  ~BrowserEngine();

  bool Start(std::string* error);
  void Stop();
  // Queues a watch for the core thread; 0 (and `*error`) before Start.
  uint64_t Add(WatchFactory factory, std::string* error);
  void Cancel(uint64_t id);
  int Descriptor() const;
  void ProcessReady();

 private:
  bool InCallbackThread() const;
  void RunOwnThread();
  void Round();
  void TakeRequests();
  void Begin(uint64_t id, const WatchFactory& factory);
  int64_t CollectDue(std::vector<Delivery>* deliveries);
  void Deliver(std::vector<Delivery>& deliveries);
  void Shutdown();
  void WaitForCallbackOf(std::unique_lock<std::mutex>& lock, uint64_t id);

  const Threading threading_;

  // Shared by every thread.
  mutable std::mutex mutex_;
  std::condition_variable callback_done_;
  bool started_ = false;
  bool stop_wanted_ = false;  // Stop from inside a callback
  uint64_t next_id_ = 1;
  std::vector<std::pair<uint64_t, WatchFactory>> requests_;  // factory empty: cancel
  std::set<uint64_t> live_;                                  // not cancelled
  uint64_t running_ = 0;                                     // the watch whose callback runs
  std::thread::id running_thread_;
  std::atomic<bool> quit_{false};
  std::thread thread_;

  // The core's, entered by one thread at a time.
  std::mutex core_mutex_;
  CoreSession session_;
  QuestionGraveyard graveyard_;
  WatchContext context_;
  std::map<uint64_t, std::unique_ptr<Watch>> watches_;
};

}  // namespace sorvalen::browser
