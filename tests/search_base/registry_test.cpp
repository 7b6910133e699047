// The process-wide device lists and the engine-independent part of Start/Stop.
#include "registry_fixture.h"

namespace sorvalen_test {
namespace {

TEST_F(RegistryTest, AppendsCopiesInOrderFoundAndKeepsEqualRecordsTwice) {
  sorvalen::IPAddressV4 tv = v4("TV", 0x1401a8c0);
  MDNSSearch::AddToAddressList(tv);
  MDNSSearch::AddToAddressList(v4("Speaker"));
  MDNSSearch::AddToAddressList(tv);
  tv.name = "Changed";
  MDNSSearch::AddToAddressV6List(v6("TV", 0xfe80));
  EXPECT_EQ(NamesOf(MDNSSearch::address_list_), (Names{"TV", "Speaker", "TV"}));
  EXPECT_EQ(MDNSSearch::address_list_[2].address, 0x1401a8c0u);
  EXPECT_EQ(NamesOf(MDNSSearch::addressV6_list_), (Names{"TV"}));
}

TEST_F(RegistryTest, RemoveTakesOnlyTheFirstExactMatchOfItsOwnList) {
  for (const char* name : {"A", "TV", "B", "TV", "tv2", "Living Room TV"})
    MDNSSearch::AddToAddressList(v4(name));
  MDNSSearch::AddToAddressV6List(v6("TV", 1));
  MDNSSearch::AddToAddressV6List(v6("TV", 2));

  // Names match whole and case-sensitively; a probe ends at its first NUL.
  for (std::string probe : {"tv", "TV ", "T", "Living Room", ""}) {
    MDNSSearch::RemoveFromAddressList(&probe[0]);
  }
  char tv_with_tail[] = "TV\0x";
  MDNSSearch::RemoveFromAddressList(tv_with_tail);
  EXPECT_EQ(NamesOf(MDNSSearch::address_list_), (Names{"A", "B", "TV", "tv2", "Living Room TV"}));

  char tv[] = "TV";
  MDNSSearch::RemoveFromAddressList(tv);
  MDNSSearch::RemoveFromAddressList(tv);
  EXPECT_EQ(NamesOf(MDNSSearch::address_list_), (Names{"A", "B", "tv2", "Living Room TV"}));
  ASSERT_EQ(MDNSSearch::addressV6_list_.size(), 2u) << "each list is removed from on its own";
  MDNSSearch::RemoveFromAddressV6List(tv);
  ASSERT_EQ(MDNSSearch::addressV6_list_.size(), 1u);
  EXPECT_EQ(MDNSSearch::addressV6_list_[0].address[0], 2);
}

TEST_F(RegistryTest, StartReplacesTheFilterStopsTheEarlierSearchAndEmptiesBothLists) {
  MDNSSearch::names_ = {"left", "over"};
  RecordingSearch search;
  EXPECT_TRUE(search.Start("tv,,Living Room ,", "_http._tcp", "local.", 5, ""));
  EXPECT_EQ(MDNSSearch::names_, (Names{"tv", "", "Living Room "}));
  EXPECT_EQ(search.stop_calls, 0) << "nothing ran before";
  MDNSSearch::AddToAddressList(v4("TV"));
  MDNSSearch::AddToAddressV6List(v6("TV"));

  // Another object's Start also empties the process-wide lists.
  RecordingSearch other;
  other.Start("", "_ipp._tcp", "local.", 5, "");
  EXPECT_TRUE(MDNSSearch::names_.empty());
  EXPECT_TRUE(MDNSSearch::address_list_.empty());
  MDNSSearch::AddToAddressList(v4("TV"));
  MDNSSearch::AddToAddressV6List(v6("TV"));

  // A search whose loop ended on its time limit is still stopped (joined) first.
  search.set_running(true);
  search.set_running(false);
  search.Start("speaker", "_raop._tcp", "local.", 7, "");
  EXPECT_EQ(search.stop_calls, 1);
  EXPECT_EQ(MDNSSearch::names_, (Names{"speaker"}));
  EXPECT_TRUE(MDNSSearch::address_list_.empty());
  EXPECT_TRUE(MDNSSearch::addressV6_list_.empty());

  // After an explicit Stop the next Start does not stop again.
  search.Stop();
  search.Start("tv", "_http._tcp", "local.", 5, "");
  EXPECT_EQ(search.stop_calls, 2);
}

TEST_F(RegistryTest, StopAndDestructionLeaveTheResultsReadable) {
  auto* search = new RecordingSearch;
  search->Start("tv", "_http._tcp", "local.", 5, "");
  MDNSSearch::AddToAddressList(v4("TV"));
  MDNSSearch::AddToAddressV6List(v6("TV"));
  search->Stop();
  EXPECT_EQ(NamesOf(MDNSSearch::address_list_), (Names{"TV"}));
  EXPECT_EQ(NamesOf(MDNSSearch::addressV6_list_), (Names{"TV"}));
  EXPECT_EQ(MDNSSearch::names_, (Names{"tv"}));

  search->Start("tv", "_http._tcp", "local.", 5, "");
  MDNSSearch::AddToAddressList(v4("TV"));
  delete static_cast<MDNSSearch*>(search);  // through the virtual destructor
  EXPECT_EQ(NamesOf(MDNSSearch::address_list_), (Names{"TV"}));
}

}  // namespace
}  // namespace sorvalen_test
