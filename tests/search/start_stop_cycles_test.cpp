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

void ignore_signal(int) {}

using StartStopCyclesTest = LanSearchTest;

// A Stop right after Start waits for one 250 ms pass, so a thousand of those
// would take minutes.  Interrupting the loop's select with a signal ends the
// loop at once (a failed wait ends it like the time limit), and the Stop that
// follows finds it ended: each cycle still creates, runs, ends and joins the
// loop thread and starts and cancels the browse.
TEST_F(StartStopCyclesTest, CyclesLeaveNoThreadDescriptorOrResolveBehind) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({{"Living Room TV", "_http._tcp", 8080, {}}, {"Kitchen Speaker", "_http._tcp", 80, {}}});
  StartQuerier();
  // The first cycle also lets a sanitizer runtime start its own helper thread,
  // which must not count as ours.
  ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, ""));
  search_->Stop();
  const std::set<long> threads_before = entries_of("/proc/self/task");
  const size_t descriptors_before = entries_of("/proc/self/fd").size();

  // With the device's records in the core's cache, each search starts
  // resolves at once; Stop must cancel and free every one of them.
  for (int cycle = 0; cycle < 5; ++cycle) {
    SCOPED_TRACE(cycle);
    ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, ""));
    ASSERT_TRUE(found_v4({"Living Room TV", "Kitchen Speaker"}));
    search_->Stop();
    EXPECT_TRUE(sinfo_list.empty());
  }

  struct sigaction action {};
  action.sa_handler = ignore_signal;  // no SA_RESTART: select fails with EINTR
  sigemptyset(&action.sa_mask);
  struct sigaction previous {};
  ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
  int ended_by_signal = 0;
  for (int cycle = 0; cycle < 1000; ++cycle) {
    ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, "")) << "cycle " << cycle;
    std::set<long> loop_threads;
    for (long tid : entries_of("/proc/self/task")) {
      if (threads_before.count(tid) == 0)
        loop_threads.insert(tid);
    }
    // A signal that lands outside select is absorbed; send again, bounded.
    bool ended = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!ended && std::chrono::steady_clock::now() < deadline) {
      for (long tid : loop_threads)
        syscall(SYS_tgkill, getpid(), tid, SIGUSR1);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      ended = !search_->GetRunning();
    }
    ended_by_signal += ended ? 1 : 0;
    search_->Stop();
    ASSERT_FALSE(search_->GetRunning());
  }
  sigaction(SIGUSR1, &previous, nullptr);
  EXPECT_EQ(ended_by_signal, 1000);
  EXPECT_EQ(entries_of("/proc/self/task"), threads_before);
  EXPECT_EQ(entries_of("/proc/self/fd").size(), descriptors_before);
  EXPECT_TRUE(sinfo_list.empty());
}

}  // namespace
}  // namespace sorvalen::test
