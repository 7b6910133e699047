// Browse events handed to the handler by hand, on a core that opens no sockets.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "search/ci_equal.h"
#include "service_name_builder.h"
#include "sorvalen/mdns_search_posix.h"

namespace sorvalen {
namespace {

using test::service_name;

class BrowseCallbackTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::memset(&MDNSSearchPosix::platform_storage_, 0, sizeof MDNSSearchPosix::platform_storage_);
    MDNSSearchPosix::platform_storage_.test_mode = 1;
    ASSERT_EQ(
        mDNS_Init(&MDNSSearchPosix::mdns_storage_, &MDNSSearchPosix::platform_storage_,
                  MDNSSearchPosix::rrcache_, MDNSSearchPosix::kCacheEntries, mDNSfalse, nullptr, nullptr),
        mStatus_NoError);
  }
  static void TearDownTestSuite() {
    mDNS_StartExit(&MDNSSearchPosix::mdns_storage_);
    mDNS_FinalExit(&MDNSSearchPosix::mdns_storage_);
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

  static void Announce(const std::string& instance, QC_result kind = QC_add,
                       mDNSInterfaceID interface_id = mDNSInterface_Any) {
    RData rdata{};
    rdata.u.name = service_name(instance);
    ResourceRecord answer{};
    answer.rrtype = kDNSType_PTR;
    answer.rrclass = kDNSClass_IN;
    answer.InterfaceID = interface_id;
    answer.rdata = &rdata;
    MDNSSearchPosix::BrowseCallback(&MDNSSearchPosix::mdns_storage_, nullptr, &answer, kind);
  }

  // Instance labels of the resolves started so far, in start order.
  static std::vector<std::string> Resolving() {
    std::vector<std::string> labels;
    for (const SINFO* resolve : sinfo_list) {
      const mDNSu8* label = resolve->info.name.c;
      labels.emplace_back(reinterpret_cast<const char*>(label + 1), label[0]);
    }
    return labels;
  }

  static IPAddressV4 V4Record(const std::string& name) {
    IPAddressV4 record;
    record.name = name;
    return record;
  }
  static IPAddressV6 V6Record(const std::string& name) {
    IPAddressV6 record;
    record.name = name;
    return record;
  }
};

using Labels = std::vector<std::string>;

TEST_F(BrowseCallbackTest, WordMatchesAnywhereIgnoringCase) {
  UseFilter("abc");
  for (const char* instance : {"ABC", "xAbCy", "abc-2", "ab c", "xyz"})
    Announce(instance);
  EXPECT_EQ(Resolving(), (Labels{"ABC", "xAbCy", "abc-2"}));
}

TEST_F(BrowseCallbackTest, FirstMatchingWordStartsOneResolve) {
  UseFilter("zz,a");
  Announce("aa");   // only the second word
  Announce("zza");  // both words
  Announce("q");
  EXPECT_EQ(Resolving(), (Labels{"aa", "zza"}));
}

TEST_F(BrowseCallbackTest, EmptyFilterAdmitsNothing) {
  UseFilter("");
  Announce("Living Room");
  Announce("x");
  EXPECT_TRUE(sinfo_list.empty());
}

TEST_F(BrowseCallbackTest, LoneCommaAdmitsEveryInstance) {
  UseFilter(",");
  Announce("Living Room");
  Announce("x");
  EXPECT_EQ(Resolving(), (Labels{"Living Room", "x"}));
}

TEST_F(BrowseCallbackTest, BlanksInWordsCount) {
  UseFilter("a, b");
  Announce("b");
  Announce("x B");
  Announce("c");
  EXPECT_EQ(Resolving(), (Labels{"x B"}));
}

TEST_F(BrowseCallbackTest, ResolveNamesTheWholeServiceAndTheArrivalInterface) {
  UseFilter(",");
  const auto interface_id = reinterpret_cast<mDNSInterfaceID>(static_cast<uintptr_t>(0x40));
  Announce("Dev 1", QC_add, interface_id);
  ASSERT_EQ(sinfo_list.size(), 1u);
  const domainname expected = service_name("Dev 1");
  EXPECT_EQ(std::memcmp(sinfo_list[0]->info.name.c, expected.c, sizeof expected.c), 0);
  EXPECT_EQ(sinfo_list[0]->info.InterfaceID, interface_id);
}

TEST_F(BrowseCallbackTest, RepeatedAnnouncementStartsAnotherResolve) {
  UseFilter(",");
  Announce("Dev");
  Announce("Dev", QC_rmv);
  Announce("Dev");
  EXPECT_EQ(Resolving(), (Labels{"Dev", "Dev"}));
}

TEST_F(BrowseCallbackTest, RemovalErasesFirstRecordOfEachFamilyOnly) {
  UseFilter("");  // removal applies no filter
  MDNSSearch::AddToAddressList(V4Record("Dev"));
  MDNSSearch::AddToAddressList(V4Record("Other"));
  MDNSSearch::AddToAddressList(V4Record("Dev"));
  MDNSSearch::AddToAddressV6List(V6Record("Dev"));
  MDNSSearch::AddToAddressV6List(V6Record("Dev"));

  Announce("Dev", QC_rmv);

  ASSERT_EQ(MDNSSearch::address_list_.size(), 2u);
  EXPECT_EQ(MDNSSearch::address_list_[0].name, "Other");
  EXPECT_EQ(MDNSSearch::address_list_[1].name, "Dev");
  EXPECT_EQ(MDNSSearch::addressV6_list_.size(), 1u);
  EXPECT_TRUE(sinfo_list.empty());
}

TEST_F(BrowseCallbackTest, RemovalLeavesRunningResolvesAlone) {
  UseFilter(",");
  Announce("Dev");
  MDNSSearch::AddToAddressList(V4Record("Dev"));
  Announce("Dev", QC_rmv);
  EXPECT_TRUE(MDNSSearch::address_list_.empty());
  EXPECT_EQ(Resolving(), (Labels{"Dev"}));
}

TEST_F(BrowseCallbackTest, RemovalMatchesNamesExactly) {
  MDNSSearch::AddToAddressList(V4Record("dev"));
  Announce("Dev", QC_rmv);
  EXPECT_EQ(MDNSSearch::address_list_.size(), 1u);
}

TEST_F(BrowseCallbackTest, NameThatIsNoServiceNameIsIgnored) {
  UseFilter(",");
  MDNSSearch::AddToAddressList(V4Record("host"));
  RData rdata{};
  rdata.u.name = test::wire_name({"host", "local"});
  ResourceRecord answer{};
  answer.rdata = &rdata;
  MDNSSearchPosix::BrowseCallback(&MDNSSearchPosix::mdns_storage_, nullptr, &answer, QC_add);
  MDNSSearchPosix::BrowseCallback(&MDNSSearchPosix::mdns_storage_, nullptr, &answer, QC_rmv);
  EXPECT_TRUE(sinfo_list.empty());
  EXPECT_EQ(MDNSSearch::address_list_.size(), 1u);
}

TEST(FindCiTest, GivesTheFirstPositionOrMinusOne) {
  EXPECT_EQ(find_ci("xAbCyabc", "abc"), 1);
  EXPECT_EQ(find_ci("abc", "ABCD"), -1);
  EXPECT_EQ(find_ci("abc", ""), 0);
  EXPECT_EQ(find_ci("", ""), -1);
  EXPECT_EQ(find_ci("", "a"), -1);
}

TEST(FindCiTest, BytesAboveAsciiMatchOnlyThemselvesInTheClassicLocale) {
  EXPECT_EQ(find_ci("caf\xc3\xa9", "\xc3\xa9"), 3);
  EXPECT_EQ(find_ci("caf\xc3\xa9", "\xc3\x89"), -1);  // the two bytes of É are not folded
}

}  // namespace
}  // namespace sorvalen
