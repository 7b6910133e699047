// Whole searches on a virtual LAN whose device answers with avahi-daemon, run
// inside the querier's namespace: what an application sees in the lists.
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "netns_scope.h"
#include "sorvalen/mdns_search_posix.h"
#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace sorvalen::test {
namespace {

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

Snapshot take_snapshot() {
  std::lock_guard<std::mutex> lock(MDNSSearch::address_list_mutex_);
  return Snapshot{MDNSSearch::address_list_, MDNSSearch::addressV6_list_};
}

// Polls `condition` every 50 ms for up to `seconds`; true once it holds.
bool wait_until(const std::function<bool()>& condition, double seconds = 20) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

// True once every name has an IPv4 record.
bool found_v4(const std::vector<std::string>& names) {
  return wait_until([&] {
    const Snapshot s = take_snapshot();
    for (const std::string& name : names) {
      if (s.v4_count(name) == 0)
        return false;
    }
    return true;
  });
}

class SearchOnLanTest : public ::testing::Test {
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

const ServiceSpec kTv{"Living Room TV", "_http._tcp", 8080, {"path=/"}};
const ServiceSpec kSpeaker{"Kitchen Speaker", "_http._tcp", 80, {}};
const ServiceSpec kPrinter{"Office Printer", "_http._tcp", 631, {}};
const ServiceSpec kSsh{"Shell Box", "_ssh._tcp", 22, {}};

uint32_t ipv4_network_order(const std::string& text) {
  in_addr address{};
  EXPECT_EQ(inet_pton(AF_INET, text.c_str(), &address), 1) << text;
  return address.s_addr;
}

std::vector<uint16_t> ipv6_groups(const std::string& text) {
  unsigned char bytes[16] = {};
  EXPECT_EQ(inet_pton(AF_INET6, text.substr(0, text.find('%')).c_str(), bytes), 1) << text;
  std::vector<uint16_t> groups;
  for (int i = 0; i < 8; ++i)
    groups.push_back(static_cast<uint16_t>(bytes[2 * i] << 8 | bytes[2 * i + 1]));
  return groups;
}

TEST_F(SearchOnLanTest, RecordsCarryByteOrdersAndTextsAndAWithdrawnDeviceLeaves) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({kTv, kSpeaker, kSsh});
  StartQuerier();
  ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, ""));
  EXPECT_TRUE(search_->GetRunning());

  // An application thread reads the lists under the lock while the search runs.
  std::atomic<bool> reading{true};
  std::thread reader([&] {
    for (int i = 0; i < 4000 && reading; ++i) {
      take_snapshot();
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });
  const bool found = wait_until([] {
    const Snapshot s = take_snapshot();
    return s.v4_count("Living Room TV") && s.v4_count("Kitchen Speaker") && s.v6_count("Living Room TV") &&
           s.v6_count("Kitchen Speaker");
  });
  reading = false;
  reader.join();
  ASSERT_TRUE(found);

  const Snapshot before = Settled();
  const uint32_t dev_v4 = ipv4_network_order(lan_->host_ipv4("dev"));
  const std::vector<uint16_t> dev_v6 = ipv6_groups(lan_->host_ipv6_link_local("dev"));
  for (const IPAddressV4& record : before.v4) {
    SCOPED_TRACE(record.name);
    EXPECT_EQ(record.address, dev_v4);
    EXPECT_EQ(record.type, "_http._tcp.");
    EXPECT_EQ(record.domain, "local.");
    EXPECT_EQ(record.port, record.name == "Living Room TV" ? 8080 : 80);
    EXPECT_NE(record.name, "Shell Box");
  }
  for (const IPAddressV6& record : before.v6) {
    SCOPED_TRACE(record.name);
    EXPECT_EQ(std::vector<uint16_t>(record.address, record.address + 8), dev_v6);
    EXPECT_EQ(record.type, "_http._tcp.");
    EXPECT_EQ(record.domain, "local.");
    EXPECT_EQ(record.port, record.name == "Living Room TV" ? 8080 : 80);
  }

  // Each address answer adds a record; a withdrawal takes one of each family.
  lan_->remove_service("dev", "Kitchen Speaker", "_http._tcp");
  EXPECT_TRUE(wait_until([&] {
    const Snapshot s = take_snapshot();
    return s.v4_count("Kitchen Speaker") == before.v4_count("Kitchen Speaker") - 1 &&
           s.v6_count("Kitchen Speaker") == before.v6_count("Kitchen Speaker") - 1;
  }));
  EXPECT_EQ(take_snapshot().v4_count("Living Room TV"), before.v4_count("Living Room TV"));
  EXPECT_TRUE(search_->GetRunning());
  search_->Stop();
  EXPECT_FALSE(search_->GetRunning());
  EXPECT_TRUE(take_snapshot().has("Living Room TV")) << "Stop keeps what was found";
}

TEST_F(SearchOnLanTest, FilterAsAUserMeetsItAndTheTimeLimit) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({kTv, kSpeaker, kPrinter});
  StartQuerier();
  // An empty filter finds nothing; the limit ends the loop after 2 to about 3
  // seconds of whole-second clock.
  ASSERT_TRUE(search_->Start("", "_http._tcp", "local.", 2, ""));
  ASSERT_TRUE(wait_until([&] { return !search_->GetRunning(); }, 15));
  EXPECT_TRUE(take_snapshot().v4.empty());
  EXPECT_TRUE(take_snapshot().v6.empty());

  // A new Start after the limit begins afresh.  Only the second word matches,
  // and only inside the name, in another case.
  ASSERT_TRUE(search_->Start("zzz,ICE PRINT", "_http._tcp", "local.", 0, ""));
  EXPECT_TRUE(search_->GetRunning());
  ASSERT_TRUE(found_v4({"Office Printer"}));
  const Snapshot s = Settled();
  EXPECT_FALSE(s.has("Living Room TV"));
  EXPECT_FALSE(s.has("Kitchen Speaker"));

  // A lone comma admits every instance.
  ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, ""));
  EXPECT_TRUE(found_v4({"Living Room TV", "Kitchen Speaker", "Office Printer"}));
}

TEST_F(SearchOnLanTest, StartStopAndInitInAnyOrderLeaveTheSearchUsable) {
  SV_REQUIRE_VIRTUAL_LAN();
  BuildLan({kTv, kSsh});
  StartQuerier();
  ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, ""));
  ASSERT_TRUE(found_v4({"Living Room TV"}));

  // Start while searching begins a new search with emptied lists.
  ASSERT_TRUE(search_->Start(",", "_ssh._tcp", "local.", 0, ""));
  EXPECT_TRUE(search_->GetRunning());
  EXPECT_FALSE(take_snapshot().has("Living Room TV"));
  ASSERT_TRUE(found_v4({"Shell Box"}));
  for (const IPAddressV4& record : take_snapshot().v4)
    EXPECT_EQ(record.type, "_ssh._tcp.");

  // Stop right after Start waits for the loop's pass; a second Stop is harmless.
  ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, ""));
  const auto before = std::chrono::steady_clock::now();
  search_->Stop();
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(250));
  EXPECT_FALSE(search_->GetRunning());
  search_->Stop();
  EXPECT_FALSE(search_->GetRunning());

  search_->Destroy();
  EXPECT_FALSE(search_->Start(",", "_http._tcp", "local.", 0, "")) << "no core after Destroy";
  EXPECT_FALSE(search_->RefreshInterfaces());
  ASSERT_TRUE(search_->Init());
  EXPECT_TRUE(search_->RefreshInterfaces());
  ASSERT_TRUE(search_->Start(",", "_http._tcp", "local.", 0, ""));
  EXPECT_TRUE(found_v4({"Living Room TV"}));
}

TEST_F(SearchOnLanTest, OnlyAnExactInterfaceNameIsAcceptedAndItLimitsTheSearchToItsLink) {
  SV_REQUIRE_VIRTUAL_LAN();
  lan_.emplace();
  lan_->add_lan();
  lan_->add_lan();
  lan_->add_host("querier", {1, 2});  // eth0 on LAN 1, eth1 on LAN 2
  lan_->add_host("near", {1});
  lan_->add_host("far", {2});
  lan_->start_avahi("near", {{"Near Camera", "_rtsp._tcp", 554, {}}});
  lan_->start_avahi("far", {{"Far Camera", "_rtsp._tcp", 554, {}}});
  StartQuerier();
  for (const char* name : {"eth9", "ETH1", "eth", "eth1 "}) {
    SCOPED_TRACE(name);
    EXPECT_FALSE(search_->Start("camera", "_rtsp._tcp", "local.", 0, name));
    EXPECT_FALSE(search_->GetRunning());
  }

  ASSERT_TRUE(search_->Start("camera", "_rtsp._tcp", "local.", 0, "eth1"));
  ASSERT_TRUE(found_v4({"Far Camera"}));
  const Snapshot s = Settled();
  EXPECT_FALSE(s.has("Near Camera"));
  const uint32_t far = ipv4_network_order(lan_->host_ipv4("far"));
  for (const IPAddressV4& record : s.v4)
    EXPECT_EQ(record.address, far);

  ASSERT_TRUE(search_->Start("camera", "_rtsp._tcp", "local.", 0, ""));
  EXPECT_TRUE(found_v4({"Far Camera", "Near Camera"}));
}

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

// A Stop right after Start waits for one 250 ms pass, so a thousand of those
// would take minutes.  Interrupting the loop's select with a signal ends the
// loop at once (a failed wait ends it like the time limit), and the Stop that
// follows finds it ended: each cycle still creates, runs, ends and joins the
// loop thread and starts and cancels the browse.
TEST_F(SearchOnLanTest, CyclesLeaveNoThreadDescriptorOrResolveBehind) {
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
