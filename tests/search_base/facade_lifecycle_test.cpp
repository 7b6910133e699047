// The engine-independent lifecycle of a search: Start, Stop, flags and filter.
#include <string>
#include <vector>

#include "recording_search.h"
#include "registry_fixture.h"

namespace sorvalen_test {
namespace {

using sorvalen::MDNSSearch;
using Names = std::vector<std::string>;

TEST_F(RegistryTest, FreshSearchIsIdleWithEmptyLists) {
  PlainSearch search;
  EXPECT_FALSE(search.GetRunning());
  EXPECT_FALSE(search.started());
  EXPECT_FALSE(search.stop_requested());
  EXPECT_TRUE(search.GetAddressList().empty());
  EXPECT_TRUE(search.GetAddressV6List().empty());
  EXPECT_TRUE(search.Init());
  EXPECT_FALSE(search.RefreshInterfaces());
  search.Destroy();
}

TEST_F(RegistryTest, BaseFlagsFollowStartAndStop) {
  PlainSearch search;
  search.Stop();  // never started
  EXPECT_FALSE(search.started());
  EXPECT_TRUE(search.stop_requested());

  EXPECT_TRUE(search.Start("tv", "_http._tcp", "local.", 10, ""));
  EXPECT_TRUE(search.started());
  EXPECT_FALSE(search.stop_requested());
  EXPECT_FALSE(search.GetRunning()) << "only an engine sets running";

  search.Stop();
  EXPECT_FALSE(search.started());
  EXPECT_TRUE(search.stop_requested());
}

TEST_F(RegistryTest, StartStoresItsParametersUnchanged) {
  RecordingSearch search;
  EXPECT_TRUE(search.Start("tv", " _HTTP._tcp ", "", -3, "does-not-exist0"));
  EXPECT_EQ(search.service_type(), " _HTTP._tcp ");
  EXPECT_EQ(search.domain(), "");
  EXPECT_EQ(search.timeout_seconds(), -3);
  EXPECT_EQ(search.stop_calls, 0) << "nothing was set up before";
}

struct FilterCase {
  const char* text;
  Names words;
};

class FilterWords : public RegistryTest, public ::testing::WithParamInterface<FilterCase> {};

TEST_P(FilterWords, StartReplacesTheWordsWithTheCommaFields) {
  MDNSSearch::names_ = {"left", "over", "words"};
  PlainSearch search;
  search.Start(GetParam().text, "_http._tcp", "local.", 0, "");
  EXPECT_EQ(MDNSSearch::names_, GetParam().words);
}

INSTANTIATE_TEST_SUITE_P(Filters, FilterWords,
                         ::testing::Values(FilterCase{"", {}}, FilterCase{"tv", {"tv"}},
                                           FilterCase{"tv,speaker", {"tv", "speaker"}},
                                           FilterCase{"tv,,speaker", {"tv", "", "speaker"}},
                                           FilterCase{",tv", {"", "tv"}}, FilterCase{"tv,", {"tv"}},
                                           FilterCase{",", {""}},
                                           FilterCase{"Living Room , TV", {"Living Room ", " TV"}}));

TEST_F(RegistryTest, StartStopsAnEarlierSearchThroughTheEngineAndEmptiesBothLists) {
  RecordingSearch search;
  search.Start("tv", "_http._tcp", "local.", 5, "");
  MDNSSearch::AddToAddressList(v4("TV"));
  MDNSSearch::AddToAddressV6List(v6("TV"));

  search.Start("speaker", "_raop._tcp", "local.", 7, "");
  EXPECT_EQ(search.stop_calls, 1);
  EXPECT_TRUE(search.started());
  EXPECT_FALSE(search.stop_requested());
  EXPECT_EQ(MDNSSearch::names_, (Names{"speaker"}));
  EXPECT_EQ(search.service_type(), "_raop._tcp");
  EXPECT_EQ(search.timeout_seconds(), 7);
  EXPECT_TRUE(MDNSSearch::address_list_.empty());
  EXPECT_TRUE(MDNSSearch::addressV6_list_.empty());
}

TEST_F(RegistryTest, StartAfterAnExplicitStopDoesNotStopAgain) {
  RecordingSearch search;
  search.Start("tv", "_http._tcp", "local.", 5, "");
  search.Stop();
  EXPECT_EQ(search.stop_calls, 1);
  search.Start("tv", "_http._tcp", "local.", 5, "");
  EXPECT_EQ(search.stop_calls, 1);
}

TEST_F(RegistryTest, SearchThatEndedByItselfIsStillStoppedByTheNextStart) {
  RecordingSearch search;
  search.Start("tv", "_http._tcp", "local.", 1, "");
  search.set_running(true);
  search.set_running(false);  // the loop ended on its time limit; started stays set
  search.Start("tv", "_http._tcp", "local.", 1, "");
  EXPECT_EQ(search.stop_calls, 1);
}

TEST_F(RegistryTest, StopLeavesTheResultsReadable) {
  RecordingSearch search;
  search.Start("tv", "_http._tcp", "local.", 5, "");
  MDNSSearch::AddToAddressList(v4("TV"));
  MDNSSearch::AddToAddressV6List(v6("TV"));
  search.Stop();
  EXPECT_EQ(V4Names(), (Names{"TV"}));
  EXPECT_EQ(V6Names(), (Names{"TV"}));
  EXPECT_EQ(MDNSSearch::names_, (Names{"tv"}));
}

TEST_F(RegistryTest, StartOfASecondSearchEmptiesWhatTheFirstFound) {
  RecordingSearch first;
  RecordingSearch second;
  first.Start("tv", "_http._tcp", "local.", 5, "");
  MDNSSearch::AddToAddressList(v4("TV"));
  second.Start("printer", "_ipp._tcp", "local.", 5, "");
  EXPECT_TRUE(MDNSSearch::address_list_.empty());
  EXPECT_EQ(first.stop_calls, 0);
  EXPECT_EQ(second.stop_calls, 0);
}

TEST_F(RegistryTest, DestructionRunsTheBaseStopOnlyAndKeepsTheLists) {
  auto* search = new RecordingSearch;
  search->Start("tv", "_http._tcp", "local.", 5, "");
  MDNSSearch::AddToAddressList(v4("TV"));
  MDNSSearch* base = search;
  delete base;  // through the virtual destructor
  EXPECT_EQ(V4Names(), (Names{"TV"}));
}

}  // namespace
}  // namespace sorvalen_test
