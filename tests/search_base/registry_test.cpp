// The process-wide device lists: order, duplicates, first-match removal.
#include <string>
#include <vector>

#include "recording_search.h"
#include "registry_fixture.h"

namespace sorvalen_test {
namespace {

using sorvalen::MDNSSearch;
using Names = std::vector<std::string>;

TEST_F(RegistryTest, AppendsInOrderFoundAndKeepsEqualRecordsTwice) {
  MDNSSearch::AddToAddressList(v4("TV", 0x1401a8c0, 80));
  MDNSSearch::AddToAddressList(v4("Speaker"));
  MDNSSearch::AddToAddressList(v4("TV", 0x1401a8c0, 80));
  EXPECT_EQ(V4Names(), (Names{"TV", "Speaker", "TV"}));
  EXPECT_EQ(MDNSSearch::address_list_[2].address, 0x1401a8c0u);
  EXPECT_EQ(MDNSSearch::address_list_[2].port, 80);

  MDNSSearch::AddToAddressV6List(v6("TV", 0xfe80));
  MDNSSearch::AddToAddressV6List(v6("TV", 0xfe80));
  EXPECT_EQ(V6Names(), (Names{"TV", "TV"}));
  EXPECT_EQ(V4Names().size(), 3u) << "the IPv6 list is a separate list";
}

TEST_F(RegistryTest, AppendedRecordIsACopy) {
  sorvalen::IPAddressV4 record = v4("Printer");
  MDNSSearch::AddToAddressList(record);
  record.name = "Changed";
  record.port = 9;
  ASSERT_EQ(MDNSSearch::address_list_.size(), 1u);
  EXPECT_EQ(MDNSSearch::address_list_[0].name, "Printer");
  EXPECT_EQ(MDNSSearch::address_list_[0].port, 0);
}

TEST_F(RegistryTest, RemoveTakesOnlyTheFirstExactMatchAndKeepsTheOrder) {
  for (const char* name : {"A", "TV", "B", "TV", "C"})
    MDNSSearch::AddToAddressList(v4(name));
  char tv[] = "TV";
  MDNSSearch::RemoveFromAddressList(tv);
  EXPECT_EQ(V4Names(), (Names{"A", "B", "TV", "C"}));
  MDNSSearch::RemoveFromAddressList(tv);
  EXPECT_EQ(V4Names(), (Names{"A", "B", "C"}));
  MDNSSearch::RemoveFromAddressList(tv);
  EXPECT_EQ(V4Names(), (Names{"A", "B", "C"}));
}

TEST_F(RegistryTest, RemoveMatchesWholeNameCaseSensitively) {
  for (const char* name : {"Living Room TV", "TV", "tv2"})
    MDNSSearch::AddToAddressList(v4(name));
  for (const char* probe : {"tv", "Tv", "TV ", "T", "Living Room", "living room tv", ""}) {
    std::string copy(probe);
    MDNSSearch::RemoveFromAddressList(copy.data());
  }
  EXPECT_EQ(V4Names(), (Names{"Living Room TV", "TV", "tv2"}));
}

TEST_F(RegistryTest, RemoveStopsAtTheFirstNulOfTheName) {
  MDNSSearch::AddToAddressList(v4(std::string("TV\0x", 4)));
  MDNSSearch::AddToAddressList(v4("TV"));
  char name[] = "TV\0x";
  MDNSSearch::RemoveFromAddressList(name);
  ASSERT_EQ(MDNSSearch::address_list_.size(), 1u);
  EXPECT_EQ(MDNSSearch::address_list_[0].name.size(), 4u);
}

TEST_F(RegistryTest, RemovesFromEachListSeparately) {
  MDNSSearch::AddToAddressList(v4("TV"));
  MDNSSearch::AddToAddressV6List(v6("TV"));
  MDNSSearch::AddToAddressV6List(v6("TV", 1));
  char tv[] = "TV";
  MDNSSearch::RemoveFromAddressV6List(tv);
  EXPECT_EQ(V4Names(), (Names{"TV"}));
  ASSERT_EQ(MDNSSearch::addressV6_list_.size(), 1u);
  EXPECT_EQ(MDNSSearch::addressV6_list_[0].address[0], 1);
}

TEST_F(RegistryTest, GettersReturnTheLiveListsAndClearsEmptyOneListEach) {
  PlainSearch search;
  EXPECT_EQ(&search.GetAddressList(), &MDNSSearch::address_list_);
  EXPECT_EQ(&search.GetAddressV6List(), &MDNSSearch::addressV6_list_);
  MDNSSearch::AddToAddressList(v4("TV"));
  MDNSSearch::AddToAddressV6List(v6("TV"));
  search.ClearAddressList();
  EXPECT_TRUE(search.GetAddressList().empty());
  EXPECT_EQ(search.GetAddressV6List().size(), 1u);
  search.ClearAddressV6List();
  EXPECT_TRUE(search.GetAddressV6List().empty());
  search.ClearAddressList();  // clearing an empty list is harmless
  EXPECT_TRUE(search.GetAddressList().empty());
}

}  // namespace
}  // namespace sorvalen_test
