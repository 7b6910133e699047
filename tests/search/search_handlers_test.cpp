// The browse and resolve handlers fed by hand, on a core that opens no sockets.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <tuple>
#include <vector>

#include "dns_builder.h"
#include "platform/test_platform.h"
#include "sorvalen/mdns_search_posix.h"

// Set by a test to make every allocation of this thread fail.
static thread_local bool fail_allocations = false;

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

using Names = std::vector<std::string>;

template <typename List>
Names names_of(const List& list) {
  Names names;
  for (const auto& record : list)
    names.push_back(record.name);
  return names;
}

// A core name from its dotted text, "\\." and "\\DDD" escaping a dot or any byte.
domainname name_of(const std::string& dotted) {
  domainname name{};
  const test::Bytes wire = test::wire_name(dotted);
  std::memcpy(name.c, wire.data(), wire.size());
  return name;
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
    MDNSSearch::address_list_.clear();
    MDNSSearch::addressV6_list_.clear();
  }

  // The filter words, set the way an application sets them.
  static void UseFilter(const std::string& names) { MDNSSearch().Start(names, "_x._tcp", "local.", 0, ""); }

  static IPAddressV4 v4(const std::string& name) { return {0, 0, name, "", ""}; }
  static IPAddressV6 v6(const std::string& name, uint16_t group = 0) { return {{group}, 0, name, "", ""}; }
  static domainname service_name(const std::string& instance) { return name_of(instance + "._x._tcp.local"); }

  static void Announce(const domainname& name, QC_result kind = QC_add,
                       mDNSInterfaceID interface_id = mDNSInterface_Any) {
    RData rdata{};
    rdata.u.name = name;
    ResourceRecord answer{};
    answer.InterfaceID = interface_id;
    answer.rdata = &rdata;
    MDNSSearchPosix::BrowseCallback(&MDNSSearchPosix::mdns_storage_, nullptr, &answer, kind);
  }

  // Instance labels of the resolves started so far, in start order.
  static Names Resolving() {
    Names labels;
    for (const SINFO* resolve : sinfo_list) {
      const mDNSu8* label = resolve->info.name.c;
      labels.emplace_back(reinterpret_cast<const char*>(label + 1), label[0]);
    }
    return labels;
  }

  void Resolved(int family, const char* address) {
    resolve_.info.ip.type = family == AF_INET ? mDNSAddrType_IPv4 : mDNSAddrType_IPv6;
    ASSERT_EQ(inet_pton(family, address, &resolve_.info.ip.ip), 1);
    MDNSSearchPosix::ResolveCallback(&MDNSSearchPosix::mdns_storage_, &resolve_.query);
  }

  SINFO resolve_{};
};

TEST_F(SearchHandlersTest, FilterWordsMatchAnywhereIgnoringAsciiCase) {
  const std::tuple<const char*, Names, Names> cases[] = {
      {"abc", {"ABC", "xAbCy", "abc-2", "ab c", "xyz"}, {"ABC", "xAbCy", "abc-2"}},
      {"zz,a", {"aa", "zza", "q"}, {"aa", "zza"}},  // one resolve also when both words match
      {"", {"Living Room", "x"}, {}},
      {",", {"Living Room", "x"}, {"Living Room", "x"}},
      {"a, b", {"b", "x B", "c"}, {"x B"}},
      {"\xc3\xa9", {"caf\xc3\x89", "caf\xc3\xa9"}, {"caf\xc3\xa9"}},
  };
  for (const auto& [filter, announced, resolved] : cases) {
    UseFilter(filter);
    for (const std::string& instance : announced)
      Announce(service_name(instance));
    EXPECT_EQ(Resolving(), resolved) << "filter '" << filter << "'";
    TearDown();
  }

  // Each announcement resolves the whole service name on its interface.
  UseFilter(",");
  const auto interface_id = reinterpret_cast<mDNSInterfaceID>(static_cast<uintptr_t>(0x40));
  Announce(service_name("Dev 1"), QC_add, interface_id);
  Announce(service_name("Dev 1"));
  ASSERT_EQ(sinfo_list.size(), 2u);
  EXPECT_EQ(std::memcmp(sinfo_list[0]->info.name.c, resolve_.info.name.c, sizeof(domainname)), 0);
  EXPECT_EQ(sinfo_list[0]->info.InterfaceID, interface_id);
}

TEST_F(SearchHandlersTest, RemovalTakesTheFirstRecordOfExactlyItsNameFromEachListWhateverTheFilter) {
  UseFilter(",");
  Announce(service_name("TV"));
  for (const char* name : {"tv", "TV", "tv2", "TV", "Living Room TV"})
    MDNSSearch::AddToAddressList(v4(name));
  MDNSSearch::AddToAddressV6List(v6("TV", 1));
  MDNSSearch::AddToAddressV6List(v6("TV", 2));
  MDNSSearch::names_.clear();
  Announce(service_name("TV"), QC_rmv);
  EXPECT_EQ(names_of(MDNSSearch::address_list_), (Names{"tv", "tv2", "TV", "Living Room TV"}));
  ASSERT_EQ(MDNSSearch::addressV6_list_.size(), 1u);
  EXPECT_EQ(MDNSSearch::addressV6_list_[0].address[0], 2);
  EXPECT_EQ(Resolving(), (Names{"TV"})) << "a removal starts no resolve and stops none";

  // Whole names only; a probe ends at its first NUL.
  for (std::string probe : Names{"T", "TV ", "Living Room", "", std::string("TV\0x", 4)})
    MDNSSearch::RemoveFromAddressList(&probe[0]);
  EXPECT_EQ(names_of(MDNSSearch::address_list_), (Names{"tv", "tv2", "Living Room TV"}));
  EXPECT_EQ(MDNSSearch::addressV6_list_.size(), 1u) << "each list on its own";
}

// Byte orders of addresses and ports are checked on a LAN, by the search's LAN test.
TEST_F(SearchHandlersTest, ResolvedNamesKeepTheirTextsUpToTheLongestLabels) {
  // Dots, blanks and backslashes in a label stay as they are.
  resolve_.info.name = name_of("Printer 2\\.floor \\\\ A._ipp._tcp.my.home");
  Resolved(AF_INET, "10.0.0.7");
  Resolved(AF_INET6, "2001:db8::7");
  const auto texts = [](const auto& record) { return record.name + "|" + record.type + "|" + record.domain; };
  EXPECT_EQ(texts(MDNSSearch::address_list_.at(0)), "Printer 2.floor \\ A|_ipp._tcp.|my.home.");
  EXPECT_EQ(texts(MDNSSearch::addressV6_list_.at(0)), "Printer 2.floor \\ A|_ipp._tcp.|my.home.");

  // The longest labels fit their texts.
  const std::string z(63, 'z');
  resolve_.info.name = name_of(z + "._x._udp." + z + "." + z);
  Resolved(AF_INET, "10.0.0.7");
  EXPECT_EQ(texts(MDNSSearch::address_list_.at(1)), z + "|_x._udp.|" + z + "." + z + ".");
}

TEST_F(SearchHandlersTest, SkipsNamesTheCoreCannotSplitOrATextCannotHoldResultsWithoutAddressAndFailures) {
  UseFilter(",");
  MDNSSearch::AddToAddressList(v4("host"));
  MDNSSearch::AddToAddressList(v4("Tv"));
  // A byte 0 in the instance would cut its text where a removal passes it.
  for (const domainname& name : {name_of("host.local"), service_name("Tv\\000x")}) {
    Announce(name);
    Announce(name, QC_rmv);
    resolve_.info.name = name;
    Resolved(AF_INET, "10.0.0.7");
  }
  resolve_.info.name = service_name("Dev 1");
  resolve_.info.ip.type = mDNSAddrType_None;
  MDNSSearchPosix::ResolveCallback(&MDNSSearchPosix::mdns_storage_, &resolve_.query);

  // Nothing thrown inside a handler may reach the core, which is C.
  resolve_.info.name = service_name("An instance name too long for inline storage");
  const domainname dev = service_name("Dev");
  fail_allocations = true;
  EXPECT_NO_THROW({
    Announce(dev);
    Resolved(AF_INET, "10.0.0.7");
  });
  fail_allocations = false;
  EXPECT_TRUE(sinfo_list.empty());
  EXPECT_EQ(MDNSSearch::address_list_.size(), 2u);
  EXPECT_TRUE(MDNSSearch::addressV6_list_.empty());
}

}  // namespace
}  // namespace sorvalen
