// Many Start/Stop cycles: no thread, descriptor or resolve record is left
// behind (the sanitizer builds add the leak check at exit).
#include <dirent.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <set>

#include "lan_search_fixture.h"
#include "sorvalen/mdns_search_posix.h"

namespace sorvalen::test {
namespace {

std::set<long> entries_of(const char* folder) {
  std::set<long> entries;
  DIR* dir = opendir(folder);
  if (dir == nullptr)
    return entries;
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.')
      entries.insert(std::strtol(entry->d_name, nullptr, 10));
  }
  closedir(dir);
  return entries;
}

std::set<long> threads() {
  return entries_of("/proc/self/task");
}
size_t open_descriptors() {
  return entries_of("/proc/self/fd").size();
}

void ignore_signal(int) {}

// One plain cycle first: a sanitizer runtime starts its own helper thread
// with the first thread the process creates, and it must not count as ours.
void warm_up(MDNSSearch& search) {
  ASSERT_TRUE(search.Start(",", "_http._tcp", "local.", 0, ""));
  search.Stop();
}

using StartStopCyclesTest = LanSearchTest;

// A Stop right after Start waits for one 250 ms pass, so a thousand of those
// would take minutes.  Interrupting the loop's select with a signal ends the
// loop at once (a failed wait ends it like the time limit), and the Stop that
// follows finds it ended: each cycle still creates, runs, ends and joins the
// loop thread and starts and cancels the browse.
TEST_F(StartStopCyclesTest, ThousandCyclesEndingTheLoopBySignal) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({{"Living Room TV", "_http._tcp", 8080, {}}});
  StartQuerier();

  struct sigaction action {};
  action.sa_handler = ignore_signal;  // no SA_RESTART: select fails with EINTR
  sigemptyset(&action.sa_mask);
  struct sigaction previous {};
  ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);

  warm_up(*search_);
  const std::set<long> threads_before = threads();
  const size_t descriptors_before = open_descriptors();
  const pid_t pid = getpid();
  int ended_by_signal = 0;
  for (int cycle = 0; cycle < 1000; ++cycle) {
    ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, "")) << "cycle " << cycle;
    std::set<long> loop_threads;
    for (long tid : threads()) {
      if (threads_before.count(tid) == 0)
        loop_threads.insert(tid);
    }
    // A signal that lands outside select is absorbed; send again, bounded.
    bool ended = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!ended && std::chrono::steady_clock::now() < deadline) {
      for (long tid : loop_threads)
        syscall(SYS_tgkill, pid, tid, SIGUSR1);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      ended = !search_->GetRunning();
    }
    ended_by_signal += ended ? 1 : 0;
    search_->Stop();
    ASSERT_FALSE(search_->GetRunning());
  }
  sigaction(SIGUSR1, &previous, nullptr);
  EXPECT_EQ(ended_by_signal, 1000);
  EXPECT_EQ(threads(), threads_before);
  EXPECT_EQ(open_descriptors(), descriptors_before);
  EXPECT_TRUE(sinfo_list.empty());
}

// With the device's records in the core's cache, each search starts resolves
// at once; Stop must cancel and free every one of them.
TEST_F(StartStopCyclesTest, CyclesThatResolveFreeTheirResolves) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({{"Living Room TV", "_http._tcp", 8080, {}}, {"Kitchen Speaker", "_http._tcp", 80, {}}});
  StartQuerier();
  warm_up(*search_);
  const std::set<long> threads_before = threads();
  for (int cycle = 0; cycle < 12; ++cycle) {
    ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, "")) << "cycle " << cycle;
    ASSERT_TRUE(wait_until(
        [] {
          const Snapshot s = take_snapshot();
          return s.v4_count("Living Room TV") && s.v4_count("Kitchen Speaker");
        },
        kFindSeconds))
        << "cycle " << cycle;
    search_->Stop();
    EXPECT_TRUE(sinfo_list.empty());
  }
  EXPECT_EQ(threads(), threads_before);
}

}  // namespace
}  // namespace sorvalen::test
