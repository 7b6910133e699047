// Watches one device search through the library's public interface, for
// scripts/attack_bench.sh; run it only inside a network namespace of a virtual LAN.
//
//   search_watch --type T [--filter WORDS] [--seconds S] [--interface IF]
//                [--real PREFIX] [--expect N] [--watch NAME]
//                [--restart-at SEC] [--destroy-at SEC]
//
// Runs the search for S seconds (default 30), sampling the lists every 20 ms,
// and prints "started epoch_ms=..." at Start, a progress line every 5 s and one
// closing line of key=value figures:
//   names_ever, names_end  instance names ever listed / listed at the end (IPv4 or IPv6)
//   lost                   names that were listed and later missing (without a restart)
//   real_ever, real_end    the same for names that start with PREFIX
//   v4, v6                 records in the lists at the end; dup_v4, dup_v6 records beyond one per name
//   all_ms                 ms from Start until N names were listed (-1: never)
//   first_ms               ms from Start until the first name was listed
//   watch_epoch_ms         wall-clock ms when NAME was first listed (-1: never)
//   cpu_ms                 CPU time of everything but the main thread (the search loop)
//   rss_kb                 peak resident memory of the process
// --restart-at calls Start again after SEC seconds (a later Start in the same
// process); --destroy-at calls Destroy while the search runs (misuse) and ends.
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "sorvalen/mdns_search.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  std::string type, filter = ",", interface_name, real, watch;
  double seconds = 30, restart_at = -1, destroy_at = -1;
  size_t expect = 0;
};

long long epoch_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

double cpu_ms(int who) {
  rusage usage{};
  getrusage(who, &usage);
  const auto ms = [](const timeval& tv) {
    return static_cast<double>(tv.tv_sec) * 1e3 + static_cast<double>(tv.tv_usec) / 1e3;
  };
  return ms(usage.ru_utime) + ms(usage.ru_stime);
}

struct Lists {
  std::set<std::string> names;
  size_t v4 = 0, v6 = 0, dup_v4 = 0, dup_v6 = 0;
};

Lists read_lists() {
  Lists lists;
  std::set<std::string> v4_names, v6_names;
  std::lock_guard<std::mutex> lock(sorvalen::MDNSSearch::address_list_mutex_);
  for (const auto& record : sorvalen::MDNSSearch::address_list_)
    v4_names.insert(record.name);
  for (const auto& record : sorvalen::MDNSSearch::addressV6_list_)
    v6_names.insert(record.name);
  lists.v4 = sorvalen::MDNSSearch::address_list_.size();
  lists.v6 = sorvalen::MDNSSearch::addressV6_list_.size();
  lists.dup_v4 = lists.v4 - v4_names.size();
  lists.dup_v6 = lists.v6 - v6_names.size();
  lists.names = std::move(v4_names);
  lists.names.insert(v6_names.begin(), v6_names.end());
  return lists;
}

bool parse(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string key = argv[i];
    if (i + 1 >= argc)
      return false;
    const char* value = argv[++i];
    if (key == "--type")
      o.type = value;
    else if (key == "--filter")
      o.filter = value;
    else if (key == "--seconds")
      o.seconds = std::atof(value);
    else if (key == "--interface")
      o.interface_name = value;
    else if (key == "--real")
      o.real = value;
    else if (key == "--expect")
      o.expect = std::strtoul(value, nullptr, 10);
    else if (key == "--watch")
      o.watch = value;
    else if (key == "--restart-at")
      o.restart_at = std::atof(value);
    else if (key == "--destroy-at")
      o.destroy_at = std::atof(value);
    else
      return false;
  }
  return !o.type.empty();
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (!parse(argc, argv, o)) {
    std::fprintf(stderr,
                 "usage: search_watch --type T [--filter W] [--seconds S] [--interface IF] [--real P]\n"
                 "       [--expect N] [--watch NAME] [--restart-at SEC] [--destroy-at SEC]\n");
    return 2;
  }
  std::unique_ptr<sorvalen::MDNSSearch> search(sorvalen::MDNSSearch::CreateMDNSSearch());
  if (!search->Init())
    return 3;
  const auto start = Clock::now();
  if (!search->Start(o.filter, o.type, "local.", 0, o.interface_name))
    return 3;
  std::printf("started epoch_ms=%lld\n", epoch_ms());
  std::fflush(stdout);

  auto since_start = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
  std::set<std::string> ever, lost;
  double all_ms = -1, first_ms = -1, next_report = 5;
  long long watch_epoch = -1;
  bool restarted = false;
  Lists now;
  while (since_start() < o.seconds) {
    if (o.destroy_at >= 0 && since_start() >= o.destroy_at) {
      search->Destroy();
      std::printf("destroyed while running at %.1f s\n", since_start());
      std::fflush(stdout);
      std::this_thread::sleep_for(std::chrono::seconds(1));
      search.reset();
      std::printf("destroy_survived=1\n");
      return 0;
    }
    if (o.restart_at >= 0 && !restarted && since_start() >= o.restart_at) {
      restarted = true;
      const bool ok = search->Start(o.filter, o.type, "local.", 0, o.interface_name);
      std::printf("restarted at %.1f s: %s\n", since_start(), ok ? "ok" : "failed");
      ever.clear();
    }
    now = read_lists();
    for (const std::string& name : ever) {
      if (now.names.count(name) == 0)
        lost.insert(name);
    }
    for (const std::string& name : now.names) {
      if (ever.insert(name).second && name == o.watch && watch_epoch < 0)
        watch_epoch = epoch_ms();
    }
    const double t = since_start();
    if (first_ms < 0 && !now.names.empty())
      first_ms = t * 1e3;
    if (all_ms < 0 && o.expect > 0 && now.names.size() >= o.expect)
      all_ms = t * 1e3;
    if (t >= next_report) {
      std::printf("t=%.0fs listed=%zu ever=%zu v4=%zu v6=%zu\n", t, now.names.size(), ever.size(), now.v4,
                  now.v6);
      std::fflush(stdout);
      next_report += 5;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const double loop_cpu = cpu_ms(RUSAGE_SELF) - cpu_ms(RUSAGE_THREAD);
  size_t real_ever = 0, real_end = 0;
  if (!o.real.empty()) {
    for (const std::string& name : ever)
      real_ever += name.compare(0, o.real.size(), o.real) == 0 ? 1 : 0;
    for (const std::string& name : now.names)
      real_end += name.compare(0, o.real.size(), o.real) == 0 ? 1 : 0;
  }
  search->Stop();
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf(
      "names_ever=%zu names_end=%zu lost=%zu real_ever=%zu real_end=%zu v4=%zu v6=%zu dup_v4=%zu dup_v6=%zu "
      "all_ms=%.0f first_ms=%.0f watch_epoch_ms=%lld cpu_ms=%.0f rss_kb=%ld\n",
      ever.size(), now.names.size(), lost.size(), real_ever, real_end, now.v4, now.v6, now.dup_v4, now.dup_v6,
      all_ms, first_ms, watch_epoch, loop_cpu, usage.ru_maxrss);
  search->Destroy();
  return 0;
}
