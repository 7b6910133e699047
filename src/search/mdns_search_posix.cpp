// The search engine's lifecycle and its event loop on the mDNS core.
#include "sorvalen/mdns_search_posix.h"

#include <sys/select.h>

#include <cerrno>
#include <cstring>
#include <ctime>

std::vector<SINFO*> sinfo_list;

extern "C" const char ProgramName[] = "sorvalen_mdnssearch";

namespace sorvalen {

namespace {

constexpr long kPassMicroseconds = 250000;

// Sleeps one loop period; a signal does not shorten it.
void sleep_one_pass() {
  timespec remaining{0, kPassMicroseconds * 1000};
  while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
  }
}

}  // namespace

mDNS MDNSSearchPosix::mdns_storage_;
mDNS_PlatformSupport MDNSSearchPosix::platform_storage_;
CacheEntity MDNSSearchPosix::rrcache_[MDNSSearchPosix::kCacheEntries];

MDNSSearch* MDNSSearch::CreateMDNSSearch() {
  return new MDNSSearchPosix();
}

// The browse question is zeroed here, so that a Stop after a Start that never
// began the browse hands the core a question it knows was never started.
MDNSSearchPosix::MDNSSearchPosix() = default;

MDNSSearchPosix::~MDNSSearchPosix() {
  Stop();
  Destroy();
}

bool MDNSSearchPosix::Init() {
  const mStatus status =
      mDNS_Init(&mdns_storage_, &platform_storage_, rrcache_, kCacheEntries, mDNSfalse, nullptr, nullptr);
  if (status != mStatus_NoError)
    return false;
  initialized_ = true;
  return true;
}

void MDNSSearchPosix::Destroy() {
  if (!initialized_)
    return;
  // A search still running would go on using the core being shut down.
  Stop();
  mDNS_StartExit(&mdns_storage_);
  mDNS_FinalExit(&mdns_storage_);
  initialized_ = false;
}

// While a loop runs, the core is the loop's alone: the application's thread
// only leaves a request, which the loop takes at its next pass (or on its way
// out, so that a request made as the loop ends is not lost).  The core is
// this thread's once the loop has gone back to kNoLoop.
bool MDNSSearchPosix::RefreshInterfaces() {
  if (!initialized_)
    return false;
  LoopState state = loop_.load();
  while (state != LoopState::kNoLoop) {
    if (state == LoopState::kRefreshWanted || loop_.compare_exchange_weak(state, LoopState::kRefreshWanted))
      return true;
  }
  return refresh_now();
}

bool MDNSSearchPosix::refresh_now() {
  return mDNSPlatformPosixRefreshInterfaceList(&mdns_storage_) == mStatus_NoError;
}

void MDNSSearchPosix::take_refresh_request() {
  if (loop_.exchange(LoopState::kLooping) == LoopState::kRefreshWanted)
    (void)refresh_now();
}

// After this the loop touches the core no more; a request that came in the
// meantime is done first.
void MDNSSearchPosix::end_loop() {
  LoopState state = LoopState::kLooping;
  while (!loop_.compare_exchange_weak(state, LoopState::kNoLoop)) {
    if (state == LoopState::kRefreshWanted)
      take_refresh_request();
    state = LoopState::kLooping;
  }
  running_ = false;
}

bool MDNSSearchPosix::ChooseInterface(const std::string& interface_name,
                                      mDNSInterfaceID* interface_id) const {
  if (interface_name.empty()) {
    *interface_id = mDNSInterface_Any;
    return true;
  }
  for (const NetworkInterfaceInfo* info = mdns_storage_.HostInterfaces; info != nullptr; info = info->next) {
    const size_t length = strnlen(info->ifname, sizeof info->ifname);
    if (interface_name.size() == length && std::memcmp(interface_name.data(), info->ifname, length) == 0) {
      *interface_id = info->InterfaceID;
      return true;
    }
  }
  return false;
}

bool MDNSSearchPosix::Start(std::string names, std::string service_type, std::string domain,
                            int timeout_seconds, std::string interface_name) {
  if (!initialized_)
    return false;
  MDNSSearch::Start(names, service_type, domain, timeout_seconds, std::string());

  mDNSInterfaceID interface_id = mDNSInterface_Any;
  if (!ChooseInterface(interface_name, &interface_id))
    return false;

  MakeDomainNameFromDNSNameString(&browse_type_, service_type_.c_str());
  MakeDomainNameFromDNSNameString(&browse_domain_, domain_.c_str());
  const mStatus status = mDNS_StartBrowse(&mdns_storage_, &browse_question_, &browse_type_, &browse_domain_,
                                          interface_id, mDNSfalse, BrowseCallback, nullptr);
  if (status != mStatus_NoError)
    return false;

  // Set before the thread exists, so that a loop that ends at once cannot be
  // overtaken by these stores.
  running_ = true;
  loop_ = LoopState::kLooping;
  try {
    event_thread_ = new std::thread(&MDNSSearchPosix::ProcessEvents, this);
  } catch (...) {
    // No loop will ever clear the flags: undo the browse here, so that a later
    // Stop neither waits for a loop that never ran nor leaves the question active.
    loop_ = LoopState::kNoLoop;
    mDNS_StopQuery(&mdns_storage_, &browse_question_);
    running_ = false;
    throw;
  }
  return true;
}

void MDNSSearchPosix::ProcessEvents() {
  const time_t start = time(nullptr);
  for (;;) {
    // Before the descriptor set is made: a refresh may open and close sockets.
    take_refresh_request();
    int nfds = 0;
    fd_set readfds;
    FD_ZERO(&readfds);
    timeval timeout{0, kPassMicroseconds};
    mDNSPosixGetFDSet(&mdns_storage_, &nfds, &readfds, &timeout);

    if (select(nfds, &readfds, nullptr, nullptr, &timeout) < 0) {
      stop_requested_ = true;
      end_loop();
      return;
    }
    // Also after a time-out: the core does its scheduled work here.
    mDNSPosixProcessFDSet(&mdns_storage_, &readfds);

    const time_t now = time(nullptr);
    if (timeout_seconds_ > 0 && difftime(now, start) > static_cast<double>(timeout_seconds_)) {
      stop_requested_ = true;
      end_loop();
      return;
    }
    if (stop_requested_) {
      end_loop();
      return;
    }
  }
}

void MDNSSearchPosix::Stop() {
  if (!started_ || stopping_)
    return;
  const bool was_running = running_;
  stopping_ = true;
  stop_requested_ = true;

  // The loop answers within one pass; after it clears running_ the core and
  // sinfo_list belong to this thread again.
  if (was_running) {
    do {
      sleep_one_pass();
    } while (running_);
  }

  for (SINFO* resolve : sinfo_list) {
    mDNS_StopResolveService(&mdns_storage_, &resolve->query);
    delete resolve;
  }
  sinfo_list.clear();
  mDNS_StopQuery(&mdns_storage_, &browse_question_);

  started_ = false;
  stopping_ = false;

  if (event_thread_ != nullptr) {
    if (event_thread_->joinable())
      event_thread_->join();
    delete event_thread_;
    event_thread_ = nullptr;
  }
}

}  // namespace sorvalen
