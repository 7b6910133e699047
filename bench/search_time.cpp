// Times device searches for scripts/bench.sh; run it only inside a network
// namespace of a virtual LAN.
//
//   search_time TYPE EXPECTED RUNS [DOMAIN]
//                                    time from Start until the first and until
//                                    EXPECTED distinct instances are in the IPv4
//                                    list, RUNS times, each with a fresh core
//                                    (empty cache): "run N: ALL ms first FIRST ms"
//                                    (ALL -1: not all within 60 s); DOMAIN:
//                                    another than local. (unicast DNS)
//   search_time TYPE hold SECONDS [DOMAIN]
//                                    one search that runs for SECONDS; prints
//                                    "found EVER end AT_END lost GONE": instances
//                                    ever listed, listed at the end, and listed
//                                    once but missing later
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "sorvalen/mdns_search.h"

namespace {

using Clock = std::chrono::steady_clock;

std::set<std::string> listed_instances() {
  std::set<std::string> names;
  std::lock_guard<std::mutex> lock(sorvalen::MDNSSearch::address_list_mutex_);
  for (const auto& record : sorvalen::MDNSSearch::address_list_)
    names.insert(record.name);
  return names;
}

struct Timing {
  double all_ms = -1, first_ms = -1;  // -1: not within 60 s; -2: the search did not start
  size_t found = 0;
};

Timing time_one_search(const std::string& type, const std::string& domain, size_t expected) {
  Timing timing;
  std::unique_ptr<sorvalen::MDNSSearch> search(sorvalen::MDNSSearch::CreateMDNSSearch());
  if (!search->Init())
    return {-2, -2, 0};
  const auto start = Clock::now();
  if (!search->Start(",", type, domain, 0, ""))
    return {-2, -2, 0};
  while (Clock::now() - start < std::chrono::seconds(60)) {
    timing.found = listed_instances().size();
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    if (timing.first_ms < 0 && timing.found > 0)
      timing.first_ms = ms;
    if (timing.found >= expected) {
      timing.all_ms = ms;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  search->Stop();
  search->Destroy();
  return timing;
}

int hold(const std::string& type, int seconds, const std::string& domain) {
  std::unique_ptr<sorvalen::MDNSSearch> search(sorvalen::MDNSSearch::CreateMDNSSearch());
  if (!search->Init() || !search->Start(",", type, domain, seconds, ""))
    return 2;
  std::printf("started\n");
  std::fflush(stdout);
  std::set<std::string> ever, gone, now;
  while (search->GetRunning()) {
    now = listed_instances();
    for (const std::string& name : ever) {
      if (now.count(name) == 0)
        gone.insert(name);
    }
    ever.insert(now.begin(), now.end());
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  std::printf("found %zu end %zu lost %zu\n", ever.size(), listed_instances().size(), gone.size());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4 && argc != 5) {
    std::fprintf(stderr, "usage: search_time TYPE EXPECTED RUNS|hold SECONDS [DOMAIN]\n");
    return 2;
  }
  const std::string type = argv[1];
  const std::string domain = argc == 5 ? argv[4] : "local.";
  if (std::string(argv[2]) == "hold")
    return hold(type, std::atoi(argv[3]), domain);

  const size_t expected = std::strtoul(argv[2], nullptr, 10);
  const int runs = std::atoi(argv[3]);
  std::vector<double> times;
  for (int run = 0; run < runs; ++run) {
    const Timing t = time_one_search(type, domain, expected);
    std::printf("run %d: %.1f ms first %.1f ms found %zu\n", run + 1, t.all_ms, t.first_ms, t.found);
    std::fflush(stdout);
    if (t.all_ms >= 0)
      times.push_back(t.all_ms);
    // Lets the responders' rate limits and the last goodbyes settle.
    std::this_thread::sleep_for(std::chrono::seconds(2));
  }
  if (times.empty())
    return 1;
  std::sort(times.begin(), times.end());
  const double median = times.size() % 2 ? times[times.size() / 2]
                                         : (times[times.size() / 2 - 1] + times[times.size() / 2]) / 2;
  std::printf("median %.1f worst %.1f\n", median, times.back());
  return 0;
}
