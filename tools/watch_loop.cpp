#include "watch_loop.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

namespace {

sigset_t stop_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

}  // namespace

void block_stop_signals() {
  const sigset_t signals = stop_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

WatchEnd watch_until(int timeout_seconds, const std::function<bool(double elapsed)>& step) {
  using Clock = std::chrono::steady_clock;
  const sigset_t signals = stop_signals();
  const Clock::time_point started = Clock::now();
  const Clock::time_point deadline = started + std::chrono::seconds(timeout_seconds);
  WatchEnd end;
  for (;;) {
    const Clock::time_point now = Clock::now();
    if (!step(std::chrono::duration<double>(now - started).count()))
      break;
    if (timeout_seconds > 0 && now >= deadline)
      break;
    auto wait = std::chrono::nanoseconds(std::chrono::milliseconds(100));
    if (timeout_seconds > 0)
      wait = std::min(wait, std::chrono::nanoseconds(deadline - now));
    const timespec wait_time{0, static_cast<long>(wait.count())};
    const int taken = sigtimedwait(&signals, nullptr, &wait_time);
    if (taken > 0) {
      end.stop_signal = taken;
      break;
    }
  }
  end.seconds = std::chrono::duration<double>(Clock::now() - started).count();
  return end;
}

bool start_browser(const char* command, sorvalen::ServiceBrowser* browser) {
  std::string error;
  if (browser->Start(&error))
    return true;
  std::fprintf(stderr,
               "sorvalen-mdns %s: mDNS is unavailable: cannot open UDP port 5353 with multicast; another "
               "program may hold the port exclusively\n",
               command);
  return false;
}

StatusLine::StatusLine(int timeout_seconds)
    : terminal_(isatty(STDERR_FILENO) == 1), timeout_seconds_(timeout_seconds) {}

void StatusLine::Show(double elapsed_seconds, size_t shown, const char* what) {
  if (!terminal_)
    return;
  if (timeout_seconds_ > 0) {
    std::fprintf(stderr, "\r\033[Ksearching... %.1f s of %d s, %zu %s", elapsed_seconds, timeout_seconds_,
                 shown, what);
  } else {
    std::fprintf(stderr, "\r\033[Ksearching... %.1f s (Ctrl-C to stop), %zu %s", elapsed_seconds, shown,
                 what);
  }
  shown_ = true;
}

void StatusLine::Clear() {
  if (shown_)
    std::fprintf(stderr, "\r\033[K");
  shown_ = false;
}
