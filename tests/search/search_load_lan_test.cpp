// The search on a crowded or hostile LAN, run inside the querier's namespace:
// a burst of long-lived PTRs must not blind it, and one device with 2,000
// instances must be listed whole.  Both are disabled until the core keeps a
// full cache from pushing out what the search needs (run them with
// --gtest_also_run_disabled_tests).
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "netns_scope.h"
#include "sorvalen/mdns_search.h"
#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace sorvalen::test {
namespace {

// Instance name -> its IPv4 and IPv6 records in the lists.
std::map<std::string, std::pair<int, int>> listed() {
  std::map<std::string, std::pair<int, int>> names;
  std::lock_guard<std::mutex> lock(MDNSSearch::address_list_mutex_);
  for (const auto& record : MDNSSearch::address_list_)
    ++names[record.name].first;
  for (const auto& record : MDNSSearch::addressV6_list_)
    ++names[record.name].second;
  return names;
}

bool wait_until(const std::function<bool()>& condition, int seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return true;
}

class SearchLoadLanTest : public ::testing::Test {
 protected:
  void TearDown() override {
    search_.reset();
    scope_.reset();
    lan_.reset();
  }

  void BuildLan(const std::vector<std::string>& hosts) {
    lan_.emplace();
    lan_->add_lan();
    for (const std::string& host : hosts)
      lan_->add_host(host, {1});
  }

  void StartSearch(const std::string& words, const std::string& type) {
    scope_ = std::make_unique<NetnsScope>(lan_->netns("querier"));
    search_.reset(MDNSSearch::CreateMDNSSearch());
    ASSERT_TRUE(search_->Init());
    ASSERT_TRUE(search_->Start(words, type, "local.", 0, ""));
  }

  std::optional<VirtualLan> lan_;
  std::unique_ptr<NetnsScope> scope_;
  std::unique_ptr<MDNSSearch> search_;
};

TEST_F(SearchLoadLanTest, ADeviceAnnouncedAfterABurstOfLongLivedPtrsIsListed) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({"querier", "attacker", "dev"});
  lan_->start_avahi("dev");
  StartSearch("camera", "_sorvflood._tcp");
  // 600 unique, well-formed PTRs of the browsed type with a 1-week TTL, at once.
  const CommandResult burst = lan_->exec("attacker", {"/usr/bin/python3", SORVALEN_ATTACK_TOOL, "ptr-burst",
                                                      "--type", "_sorvflood._tcp", "--count", "600"});
  ASSERT_TRUE(burst.ok()) << burst.err;
  std::this_thread::sleep_for(std::chrono::seconds(10));
  lan_->add_service("dev", {"Door Camera", "_sorvflood._tcp", 554, {}});
  EXPECT_TRUE(wait_until([] { return listed().count("Door Camera") > 0; }, 15));
}

TEST_F(SearchLoadLanTest, EveryOneOf2000InstancesOnOneDeviceIsListedOnce) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({"querier", "dev"});
  lan_->add_services("dev", "Unit", "_sorvmany._tcp", 9000, 2000);
  lan_->start_avahi("dev");
  StartSearch(",", "_sorvmany._tcp");
  EXPECT_TRUE(wait_until([] { return listed().size() == 2000; }, 30)) << listed().size() << " listed";
  std::this_thread::sleep_for(std::chrono::seconds(3));  // late duplicates would show by now
  const auto names = listed();
  EXPECT_EQ(names.size(), 2000u);
  for (int n = 1; n <= 2000; ++n) {
    const auto found = names.find("Unit " + std::to_string(n));
    ASSERT_TRUE(found != names.end()) << "Unit " << n << " is not listed";
    ASSERT_EQ(found->second, std::make_pair(1, 1)) << "Unit " << n << ": IPv4 and IPv6 records";
  }
}

}  // namespace
}  // namespace sorvalen::test
