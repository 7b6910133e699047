#include "browser/core_session.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace sorvalen::browser {

namespace {

constexpr uint32_t kCacheEntries = 500;

bool add_to_epoll(int epoll_fd, int fd) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = fd;
  return epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) == 0 || errno == EEXIST;
}

void close_fd(int* fd) {
  if (*fd >= 0)
    close(*fd);
  *fd = -1;
}

}  // namespace

int64_t monotonic_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

CoreSession::CoreSession()
    : core_(new mDNS()), platform_(new mDNS_PlatformSupport()), cache_(new CacheEntity[kCacheEntries]()) {}

CoreSession::~CoreSession() {
  Close();
}

bool CoreSession::Open(std::string* error) {
  epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
  wake_fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  timer_fd_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  if (epoll_fd_ < 0 || wake_fd_ < 0 || timer_fd_ < 0 || !add_to_epoll(epoll_fd_, wake_fd_) ||
      !add_to_epoll(epoll_fd_, timer_fd_)) {
    *error = std::string("cannot make the browser's descriptors: ") + std::strerror(errno);
    Close();
    return false;
  }
  if (mDNS_Init(core_.get(), platform_.get(), cache_.get(), kCacheEntries, mDNSfalse, nullptr, nullptr) !=
      mStatus_NoError) {
    *error = "mDNS is unavailable: cannot open UDP port 5353 with multicast";
    Close();
    return false;
  }
  open_ = true;
  Rearm(-1);
  return true;
}

void CoreSession::Close() {
  if (open_) {
    mDNS_StartExit(core_.get());
    mDNS_FinalExit(core_.get());
    open_ = false;
  }
  close_fd(&epoll_fd_);
  close_fd(&wake_fd_);
  close_fd(&timer_fd_);
  watched_.clear();
}

void CoreSession::Wake() const {
  const uint64_t one = 1;
  if (wake_fd_ >= 0)
    (void)!write(wake_fd_, &one, sizeof one);
}

void CoreSession::Drain(int fd) const {
  uint64_t count = 0;
  (void)!read(fd, &count, sizeof count);
}

void CoreSession::TakeWakeups() const {
  Drain(wake_fd_);
}

void CoreSession::Process() {
  Drain(timer_fd_);
  fd_set ready;
  FD_ZERO(&ready);
  // Level-triggered: a socket left over for want of room here is ready again next time.
  epoll_event events[64];
  const int count = epoll_wait(epoll_fd_, events, 64, 0);
  for (int i = 0; i < count; ++i) {
    const int fd = events[i].data.fd;
    if (fd != wake_fd_ && fd != timer_fd_ && fd < FD_SETSIZE)
      FD_SET(fd, &ready);
  }
  mDNSPosixProcessFDSet(core_.get(), &ready);
}

void CoreSession::WatchSockets(const fd_set& sockets, int nfds) {
  std::vector<int> now;
  for (int fd = 0; fd < nfds; ++fd) {
    // Added every time: a socket closed and opened again under the same
    // number has left the set without a word.
    if (FD_ISSET(fd, &sockets) && add_to_epoll(epoll_fd_, fd))
      now.push_back(fd);
  }
  for (const int fd : watched_) {
    if (std::find(now.begin(), now.end(), fd) == now.end())
      epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, fd, nullptr);
  }
  watched_ = std::move(now);
}

void CoreSession::ArmTimer(int64_t delay_ms) {
  itimerspec when{};
  // Zero would disarm the timer: the earliest wakeup is a nanosecond.
  when.it_value.tv_sec = static_cast<time_t>(delay_ms / 1000);
  when.it_value.tv_nsec = delay_ms <= 0 ? 1 : static_cast<long>(delay_ms % 1000) * 1000000;
  timerfd_settime(timer_fd_, 0, &when, nullptr);
}

void CoreSession::Rearm(int64_t other_due_ms) {
  if (!open_)
    return;
  int nfds = 0;
  fd_set sockets;
  FD_ZERO(&sockets);
  timeval timeout{3600, 0};
  mDNSPosixGetFDSet(core_.get(), &nfds, &sockets, &timeout);
  WatchSockets(sockets, nfds);
  int64_t delay = static_cast<int64_t>(timeout.tv_sec) * 1000 + (timeout.tv_usec + 999) / 1000;
  if (other_due_ms >= 0)
    delay = std::min(delay, std::max<int64_t>(0, other_due_ms - monotonic_ms()));
  ArmTimer(delay);
}

}  // namespace sorvalen::browser
