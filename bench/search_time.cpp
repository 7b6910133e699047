// Times device searches for scripts/bench.sh; run it only inside a network
// namespace of a virtual LAN.
//
//   search_time TYPE EXPECTED RUNS   time from Start until EXPECTED distinct
//                                    instances are in the IPv4 list, RUNS times,
//                                    each with a fresh core (empty cache)
//   search_time TYPE hold SECONDS    one search that runs for SECONDS
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

size_t distinct_instances() {
  std::set<std::string> names;
  std::lock_guard<std::mutex> lock(sorvalen::MDNSSearch::address_list_mutex_);
  for (const auto& record : sorvalen::MDNSSearch::address_list_)
    names.insert(record.name);
  return names.size();
}

// Milliseconds until `expected` instances are listed, or -1 after 60 s.
double time_one_search(const std::string& type, size_t expected) {
  std::unique_ptr<sorvalen::MDNSSearch> search(sorvalen::MDNSSearch::CreateMDNSSearch());
  if (!search->Init())
    return -2;
  const auto start = Clock::now();
  if (!search->Start(",", type, "local.", 0, ""))
    return -2;
  double elapsed = -1;
  while (Clock::now() - start < std::chrono::seconds(60)) {
    if (distinct_instances() >= expected) {
      elapsed = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  search->Stop();
  search->Destroy();
  return elapsed;
}

int hold(const std::string& type, int seconds) {
  std::unique_ptr<sorvalen::MDNSSearch> search(sorvalen::MDNSSearch::CreateMDNSSearch());
  if (!search->Init() || !search->Start(",", type, "local.", seconds, ""))
    return 2;
  std::printf("started\n");
  std::fflush(stdout);
  while (search->GetRunning())
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  std::printf("found %zu\n", distinct_instances());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: search_time TYPE EXPECTED RUNS | search_time TYPE hold SECONDS\n");
    return 2;
  }
  const std::string type = argv[1];
  if (std::string(argv[2]) == "hold")
    return hold(type, std::atoi(argv[3]));

  const size_t expected = std::strtoul(argv[2], nullptr, 10);
  const int runs = std::atoi(argv[3]);
  std::vector<double> times;
  for (int run = 0; run < runs; ++run) {
    const double ms = time_one_search(type, expected);
    std::printf("run %d: %.1f ms\n", run + 1, ms);
    std::fflush(stdout);
    if (ms < 0)
      return 1;
    times.push_back(ms);
    // Lets the responders' rate limits and the last goodbyes settle.
    std::this_thread::sleep_for(std::chrono::seconds(2));
  }
  std::sort(times.begin(), times.end());
  const double median = times.size() % 2 ? times[times.size() / 2]
                                         : (times[times.size() / 2 - 1] + times[times.size() / 2]) / 2;
  std::printf("median %.1f worst %.1f\n", median, times.back());
  return 0;
}
