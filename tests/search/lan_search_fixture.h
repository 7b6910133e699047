// A search run inside the querier's namespace of a virtual LAN whose devices
// answer with avahi-daemon.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "netns_scope.h"
#include "sorvalen/mdns_search.h"
#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace sorvalen::test {

// The lists as read at one moment, under the registry's lock.
struct Snapshot {
  std::vector<IPAddressV4> v4;
  std::vector<IPAddressV6> v6;

  template <typename List>
  static size_t count(const List& list, const std::string& name) {
    size_t n = 0;
    for (const auto& record : list)
      n += record.name == name ? 1 : 0;
    return n;
  }
  size_t v4_count(const std::string& name) const { return count(v4, name); }
  size_t v6_count(const std::string& name) const { return count(v6, name); }
  bool has(const std::string& name) const { return v4_count(name) + v6_count(name) > 0; }
};

inline Snapshot take_snapshot() {
  std::lock_guard<std::mutex> lock(MDNSSearch::address_list_mutex_);
  return Snapshot{MDNSSearch::address_list_, MDNSSearch::addressV6_list_};
}

// Polls `condition` every 50 ms for up to `seconds`; true once it holds.
inline bool wait_until(const std::function<bool()>& condition, double seconds = 20) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

// True once every name has an IPv4 record.
inline bool found_v4(const std::vector<std::string>& names) {
  return wait_until([&] {
    const Snapshot s = take_snapshot();
    for (const std::string& name : names) {
      if (s.v4_count(name) == 0)
        return false;
    }
    return true;
  });
}

class LanSearchTest : public ::testing::Test {
 protected:
  void TearDown() override {
    search_.reset();
    scope_.reset();
    lan_.reset();
  }

  // LAN 1 with a querier and a device "dev" announcing `services`.
  void BuildLan(const std::vector<ServiceSpec>& services) {
    lan_.emplace();
    lan_->add_lan();
    lan_->add_host("querier", {1});
    lan_->add_host("dev", {1});
    lan_->start_avahi("dev", services);
  }

  // Enters the querier's namespace and brings a search up there.
  void StartQuerier() {
    scope_ = std::make_unique<NetnsScope>(lan_->netns("querier"));
    search_.reset(MDNSSearch::CreateMDNSSearch());
    ASSERT_TRUE(search_->Init());
  }

  // The lists once no record has come for 3 s (at most 15 s).
  static Snapshot Settled() {
    Snapshot last = take_snapshot();
    auto last_change = std::chrono::steady_clock::now();
    const auto deadline = last_change + std::chrono::seconds(15);
    while (std::chrono::steady_clock::now() < deadline &&
           std::chrono::steady_clock::now() - last_change < std::chrono::seconds(3)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      Snapshot now = take_snapshot();
      if (now.v4.size() != last.v4.size() || now.v6.size() != last.v6.size()) {
        last = std::move(now);
        last_change = std::chrono::steady_clock::now();
      }
    }
    return last;
  }

  std::optional<VirtualLan> lan_;
  std::unique_ptr<NetnsScope> scope_;
  std::unique_ptr<MDNSSearch> search_;
};

}  // namespace sorvalen::test
