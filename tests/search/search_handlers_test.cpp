// The browse and resolve handlers fed by hand, on a core that opens no sockets,
// and a search used before its core is up.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "platform.h"
#include "sorvalen/mdns_search_posix.h"

namespace {

// Set by a test to make every allocation of this thread fail.
thread_local bool fail_allocations = false;

}  // namespace

// GCC, inlining these into the test framework, takes malloc/free behind
// new/delete for a mismatch; the pair is consistent.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(std::size_t size) {
  void* block = fail_allocations ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (block == nullptr)
    throw std::bad_alloc();
  return block;
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}

namespace sorvalen {
namespace {

using Labels = std::vector<std::string>;

// Core names in wire form, built without the core's text parser (labels may hold dots).
domainname wire_name(const Labels& labels) {
  domainname name{};
  size_t at = 0;
  for (const std::string& label : labels) {
    name.c[at++] = static_cast<mDNSu8>(label.size());
    std::memcpy(&name.c[at], label.data(), label.size());
    at += label.size();
  }
  return name;
}

domainname service_name(const std::string& instance) {
  return wire_name({instance, "_x", "_tcp", "local"});
}

class SearchHandlersTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::memset(&MDNSSearchPosix::platform_storage_, 0, sizeof MDNSSearchPosix::platform_storage_);
    mdns::platform_use_test_mode(&MDNSSearchPosix::platform_storage_, nullptr);
    ASSERT_EQ(
        mDNS_Init(&MDNSSearchPosix::mdns_storage_, &MDNSSearchPosix::platform_storage_,
                  MDNSSearchPosix::rrcache_, MDNSSearchPosix::kCacheEntries, mDNSfalse, nullptr, nullptr),
        mStatus_NoError);
  }
  static void TearDownTestSuite() {
    mDNS_StartExit(&MDNSSearchPosix::mdns_storage_);
    mDNS_FinalExit(&MDNSSearchPosix::mdns_storage_);
  }

  void SetUp() override {
    resolve_.query.info = &resolve_.info;
    resolve_.info.name = service_name("Dev 1");
  }
  void TearDown() override {
    for (SINFO* resolve : sinfo_list) {
      mDNS_StopResolveService(&MDNSSearchPosix::mdns_storage_, &resolve->query);
      delete resolve;
    }
    sinfo_list.clear();
    std::lock_guard<std::mutex> lock(MDNSSearch::address_list_mutex_);
    MDNSSearch::address_list_.clear();
    MDNSSearch::addressV6_list_.clear();
  }

  // The filter words, set the way an application sets them.
  static void UseFilter(const std::string& names) {
    MDNSSearch facade;
    facade.Start(names, "_x._tcp", "local.", 0, "");
  }

  static void Announce(const domainname& name, QC_result kind = QC_add,
                       mDNSInterfaceID interface_id = mDNSInterface_Any) {
    RData rdata{};
    rdata.u.name = name;
    ResourceRecord answer{};
    answer.InterfaceID = interface_id;
    answer.rdata = &rdata;
    MDNSSearchPosix::BrowseCallback(&MDNSSearchPosix::mdns_storage_, nullptr, &answer, kind);
  }
  static void Announce(const std::string& instance, QC_result kind = QC_add) {
    Announce(service_name(instance), kind);
  }

  // Instance labels of the resolves started so far, in start order.
  static Labels Resolving() {
    Labels labels;
    for (const SINFO* resolve : sinfo_list) {
      const mDNSu8* label = resolve->info.name.c;
      labels.emplace_back(reinterpret_cast<const char*>(label + 1), label[0]);
    }
    return labels;
  }

  void Resolved(int family, const char* address, uint16_t port = 80) {
    resolve_.info.ip.type = family == AF_INET ? mDNSAddrType_IPv4 : mDNSAddrType_IPv6;
    ASSERT_EQ(inet_pton(family, address, &resolve_.info.ip.ip), 1);
    resolve_.info.port.b[0] = static_cast<mDNSu8>(port >> 8);
    resolve_.info.port.b[1] = static_cast<mDNSu8>(port & 0xFF);
    MDNSSearchPosix::ResolveCallback(&MDNSSearchPosix::mdns_storage_, &resolve_.query);
  }

  SINFO resolve_{};
};

TEST_F(SearchHandlersTest, FilterWordsMatchAnywhereIgnoringAsciiCase) {
  const struct {
    const char* filter;
    Labels announced;
    Labels resolved;
  } cases[] = {
      {"abc", {"ABC", "xAbCy", "abc-2", "ab c", "xyz"}, {"ABC", "xAbCy", "abc-2"}},
      {"zz,a", {"aa", "zza", "q"}, {"aa", "zza"}},  // one resolve also when both words match
      {"", {"Living Room", "x"}, {}},
      {",", {"Living Room", "x"}, {"Living Room", "x"}},
      {"a, b", {"b", "x B", "c"}, {"x B"}},
      {"\xc3\xa9", {"caf\xc3\x89", "caf\xc3\xa9"}, {"caf\xc3\xa9"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string("filter '") + c.filter + "'");
    UseFilter(c.filter);
    for (const std::string& instance : c.announced)
      Announce(instance);
    EXPECT_EQ(Resolving(), c.resolved);
    TearDown();
  }
}

TEST_F(SearchHandlersTest, EachAnnouncementResolvesTheWholeServiceOnItsInterface) {
  UseFilter(",");
  const auto interface_id = reinterpret_cast<mDNSInterfaceID>(static_cast<uintptr_t>(0x40));
  Announce(service_name("Dev 1"), QC_add, interface_id);
  Announce("Dev 1");
  ASSERT_EQ(sinfo_list.size(), 2u);
  const domainname expected = service_name("Dev 1");
  EXPECT_EQ(std::memcmp(sinfo_list[0]->info.name.c, expected.c, sizeof expected.c), 0);
  EXPECT_EQ(sinfo_list[0]->info.InterfaceID, interface_id);
}

TEST_F(SearchHandlersTest, RemovalErasesTheFirstExactlyNamedRecordOfEachFamilyOnly) {
  UseFilter(",");
  Announce("Dev");
  for (const char* name : {"Dev", "dev", "Other", "Dev"})
    MDNSSearch::AddToAddressList(IPAddressV4{0, 0, name, "", ""});
  MDNSSearch::AddToAddressV6List(IPAddressV6{{}, 0, "Dev", "", ""});
  MDNSSearch::AddToAddressV6List(IPAddressV6{{}, 0, "Dev", "", ""});

  Announce("Dev", QC_rmv);
  ASSERT_EQ(MDNSSearch::address_list_.size(), 3u);
  EXPECT_EQ(MDNSSearch::address_list_[0].name, "dev");
  EXPECT_EQ(MDNSSearch::address_list_[2].name, "Dev");
  EXPECT_EQ(MDNSSearch::addressV6_list_.size(), 1u);
  EXPECT_EQ(Resolving(), (Labels{"Dev"})) << "a removal starts no resolve and stops none";

  MDNSSearch::names_.clear();  // removal applies no filter
  Announce("Dev", QC_rmv);
  EXPECT_EQ(MDNSSearch::address_list_.size(), 2u);
  EXPECT_TRUE(MDNSSearch::addressV6_list_.empty());
}

TEST_F(SearchHandlersTest, ResolvedAddressesKeepTheirByteOrdersAndNameTexts) {
  Resolved(AF_INET, "10.0.0.7", 8080);
  Resolved(AF_INET, "10.0.0.7", 8080);  // identical results are both recorded
  Resolved(AF_INET6, "2001:db8:1234:5678:9abc:def0:fedc:ba98", 0x1f91);

  ASSERT_EQ(MDNSSearch::address_list_.size(), 2u);
  const IPAddressV4& v4 = MDNSSearch::address_list_[1];
  const unsigned char wire[4] = {10, 0, 0, 7};
  EXPECT_EQ(std::memcmp(&v4.address, wire, 4), 0) << "network order";
  EXPECT_EQ(v4.port, 8080);
  EXPECT_EQ(v4.name, "Dev 1");
  EXPECT_EQ(v4.type, "_x._tcp.");
  EXPECT_EQ(v4.domain, "local.");

  ASSERT_EQ(MDNSSearch::addressV6_list_.size(), 1u);
  const IPAddressV6& v6 = MDNSSearch::addressV6_list_[0];
  const uint16_t groups[8] = {0x2001, 0x0db8, 0x1234, 0x5678, 0x9abc, 0xdef0, 0xfedc, 0xba98};
  EXPECT_EQ(std::memcmp(v6.address, groups, sizeof groups), 0) << "host-order groups";
  EXPECT_EQ(v6.port, 0x1f91);
  EXPECT_EQ(v6.name, "Dev 1");
  EXPECT_EQ(v6.type, "_x._tcp.");
  EXPECT_EQ(v6.domain, "local.");
}

TEST_F(SearchHandlersTest, NameTextsKeepDotsAndBlanksAndFitTheLongestLabels) {
  const std::string longest(63, 'z');
  const struct {
    Labels labels;
    std::string name, type, domain;
  } cases[] = {
      {{"Printer 2.floor \\ A", "_ipp", "_tcp", "my", "home"},
       "Printer 2.floor \\ A",
       "_ipp._tcp.",
       "my.home."},
      {{longest, "_x", "_udp", longest, longest}, longest, "_x._udp.", longest + "." + longest + "."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    resolve_.info.name = wire_name(c.labels);
    Resolved(AF_INET, "10.0.0.7");
    ASSERT_EQ(MDNSSearch::address_list_.size(), 1u);
    EXPECT_EQ(MDNSSearch::address_list_[0].name, c.name);
    EXPECT_EQ(MDNSSearch::address_list_[0].type, c.type);
    EXPECT_EQ(MDNSSearch::address_list_[0].domain, c.domain);
    TearDown();
  }
}

TEST_F(SearchHandlersTest, SkipsNamesTheCoreCannotSplitOrATextCannotHoldAndResultsWithoutAddress) {
  UseFilter(",");
  MDNSSearch::AddToAddressList(IPAddressV4{0, 0, "host", "", ""});
  MDNSSearch::AddToAddressList(IPAddressV4{0, 0, "Tv", "", ""});
  // A byte 0 in the instance would cut its text where a removal passes it.
  const domainname with_nul = service_name(std::string("Tv\0x", 4));
  for (const domainname& name : {wire_name({"host", "local"}), with_nul}) {
    Announce(name);
    Announce(name, QC_rmv);
    resolve_.info.name = name;
    Resolved(AF_INET, "10.0.0.7");
  }
  EXPECT_TRUE(sinfo_list.empty());
  EXPECT_EQ(MDNSSearch::address_list_.size(), 2u);

  resolve_.info.name = service_name("Dev 1");
  resolve_.info.ip.type = mDNSAddrType_None;
  MDNSSearchPosix::ResolveCallback(&MDNSSearchPosix::mdns_storage_, &resolve_.query);
  EXPECT_EQ(MDNSSearch::address_list_.size(), 2u);
  EXPECT_TRUE(MDNSSearch::addressV6_list_.empty());
}

TEST_F(SearchHandlersTest, FailuresInsideTheHandlersDoNotReachTheCore) {
  UseFilter(",");
  resolve_.info.name = service_name("An instance name too long for inline storage");
  const domainname dev = service_name("Dev");
  bool escaped = false;
  fail_allocations = true;
  try {
    Announce(dev);
    Resolved(AF_INET, "10.0.0.7");
  } catch (...) {
    escaped = true;
  }
  fail_allocations = false;
  EXPECT_FALSE(escaped);
  EXPECT_TRUE(sinfo_list.empty());
  EXPECT_TRUE(MDNSSearch::address_list_.empty());
}

TEST(SearchWithoutCoreTest, StartBeforeInitFailsAndChangesNothing) {
  MDNSSearch::AddToAddressList(IPAddressV4{});
  MDNSSearch::names_ = {"kept"};
  std::unique_ptr<MDNSSearch> search(MDNSSearch::CreateMDNSSearch());
  EXPECT_FALSE(search->Start(",", "_http._tcp", "local.", 1, ""));
  EXPECT_FALSE(search->GetRunning());
  EXPECT_FALSE(search->RefreshInterfaces());
  EXPECT_EQ(search->GetAddressList().size(), 1u);
  EXPECT_EQ(MDNSSearch::names_, std::vector<std::string>{"kept"});
  search->Stop();  // nothing set up: returns at once
  search->Destroy();
  MDNSSearch::address_list_.clear();
}

}  // namespace
}  // namespace sorvalen
