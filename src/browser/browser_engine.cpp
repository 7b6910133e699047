#include "browser/browser_engine.h"

#include <sys/epoll.h>

#include <cerrno>

namespace sorvalen::browser {

namespace {

// The engine whose round runs on this thread, so that calls from inside its
// callbacks neither wait for themselves nor enter the core again.
thread_local const BrowserEngine* engine_in_round = nullptr;

class RoundMark {
 public:
  explicit RoundMark(const BrowserEngine* engine) : before_(engine_in_round) { engine_in_round = engine; }
  ~RoundMark() { engine_in_round = before_; }

 private:
  const BrowserEngine* before_;
};

}  // namespace

BrowserEngine::~BrowserEngine() {
  Stop();
  if (thread_.joinable())
    thread_.join();
}

bool BrowserEngine::InCallbackThread() const {
  return engine_in_round == this;
}

bool BrowserEngine::Start(std::string* error) {
  if (InCallbackThread()) {
    *error = "the browser cannot start again from inside its own callback";
    return false;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (started_)
      return true;
  }
  // A thread that ended by a Stop from its own callback.
  if (thread_.joinable())
    thread_.join();
  std::lock_guard<std::mutex> core(core_mutex_);
  std::lock_guard<std::mutex> lock(mutex_);
  if (!session_.Open(error))
    return false;
  context_ = {session_.core(), &graveyard_};
  started_ = true;
  stop_wanted_ = false;
  quit_ = false;
  if (threading_ == Threading::kOwnThread)
    thread_ = std::thread(&BrowserEngine::RunOwnThread, this);
  return true;
}

void BrowserEngine::Stop() {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!started_)
    return;
  live_.clear();
  if (InCallbackThread()) {
    // The round that runs this callback ends the core when it returns.
    stop_wanted_ = true;
    return;
  }
  started_ = false;
  quit_ = true;
  session_.Wake();
  callback_done_.wait(lock, [this] { return running_ == 0; });
  lock.unlock();
  if (thread_.joinable())
    thread_.join();
  std::lock_guard<std::mutex> core(core_mutex_);
  Shutdown();
}

uint64_t BrowserEngine::Add(WatchFactory factory, std::string* error) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!started_ || stop_wanted_) {
    *error = "the browser is not started";
    return 0;
  }
  const uint64_t id = next_id_++;
  live_.insert(id);
  requests_.emplace_back(id, std::move(factory));
  session_.Wake();
  return id;
}

void BrowserEngine::Cancel(uint64_t id) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (live_.erase(id) == 0)
    return;
  requests_.emplace_back(id, WatchFactory());
  session_.Wake();
  if (!InCallbackThread())
    callback_done_.wait(lock, [this, id] { return running_ != id; });
}

int BrowserEngine::Descriptor() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return started_ ? session_.descriptor() : -1;
}

void BrowserEngine::ProcessReady() {
  if (threading_ != Threading::kApplicationLoop || InCallbackThread())
    return;
  std::lock_guard<std::mutex> core(core_mutex_);
  if (session_.open())
    Round();
}

void BrowserEngine::RunOwnThread() {
  const int descriptor = session_.descriptor();
  while (!quit_) {
    epoll_event event;
    if (epoll_wait(descriptor, &event, 1, -1) < 0 && errno != EINTR)
      break;
    if (quit_)
      break;
    std::lock_guard<std::mutex> core(core_mutex_);
    Round();
  }
}

// One pass: the queued requests, the core's work, the events due, then the
// callbacks, with the core left consistent and ready for the next pass.
void BrowserEngine::Round() {
  RoundMark mark(this);
  // Before the requests, so that one queued meanwhile leaves its wakeup.
  session_.TakeWakeups();
  TakeRequests();
  session_.Process();
  graveyard_.Clear();
  std::vector<Delivery> deliveries;
  session_.Rearm(CollectDue(&deliveries));
  Deliver(deliveries);
  std::unique_lock<std::mutex> lock(mutex_);
  if (stop_wanted_) {
    started_ = false;
    quit_ = true;
    lock.unlock();
    Shutdown();
  }
}

void BrowserEngine::TakeRequests() {
  std::vector<std::pair<uint64_t, WatchFactory>> requests;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    requests.swap(requests_);
  }
  for (const auto& [id, factory] : requests) {
    if (factory) {
      Begin(id, factory);
    } else {
      watches_.erase(id);
    }
  }
  graveyard_.Clear();
}

// A watch the core refuses (its interface gone, say) stays silent.
void BrowserEngine::Begin(uint64_t id, const WatchFactory& factory) {
  std::unique_ptr<Watch> watch = factory(&context_);
  if (watch->Begin()) {
    watches_.emplace(id, std::move(watch));
  } else {
    watch->End();
  }
}

int64_t BrowserEngine::CollectDue(std::vector<Delivery>* deliveries) {
  const int64_t now = monotonic_ms();
  int64_t next = -1;
  for (auto& [id, watch] : watches_) {
    watch->Collect(id, now, deliveries);
    const int64_t due = watch->NextDue();
    if (due >= 0 && (next < 0 || due < next))
      next = due;
  }
  return next;
}

void BrowserEngine::Deliver(std::vector<Delivery>& deliveries) {
  for (Delivery& delivery : deliveries) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (live_.count(delivery.watch) == 0)
        continue;
      running_ = delivery.watch;
      running_thread_ = std::this_thread::get_id();
    }
    try {
      delivery.call();
    } catch (...) {
      // An application's exception must not take the core's thread down.
    }
    std::lock_guard<std::mutex> lock(mutex_);
    running_ = 0;
    callback_done_.notify_all();
  }
}

void BrowserEngine::Shutdown() {
  for (auto& [id, watch] : watches_)
    watch->End();
  watches_.clear();
  graveyard_.Clear();
  std::lock_guard<std::mutex> lock(mutex_);
  requests_.clear();
  live_.clear();
  stop_wanted_ = false;
  session_.Close();
}

}  // namespace sorvalen::browser
