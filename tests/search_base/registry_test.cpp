// The process-wide device lists and the engine-independent part of Start/Stop.
// The concurrency test runs under ThreadSanitizer in scripts/test.sh.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "sorvalen/mdns_search.h"

namespace sorvalen_test {
namespace {

using sorvalen::MDNSSearch;
using Names = std::vector<std::string>;

sorvalen::IPAddressV4 v4(const std::string& name, uint32_t address = 0) {
  sorvalen::IPAddressV4 record;
  record.address = address;
  record.name = name;
  return record;
}

sorvalen::IPAddressV6 v6(const std::string& name, uint16_t first_group = 0) {
  sorvalen::IPAddressV6 record;
  record.address[0] = first_group;
  record.name = name;
  return record;
}

// A search without an engine that counts the Stop calls that reach it.
class RecordingSearch : public MDNSSearch {
 public:
  void Stop() override {
    ++stop_calls;
    MDNSSearch::Stop();
  }
  void set_running(bool running) { running_ = running; }
  int stop_calls = 0;
};

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { Reset(); }

  static void Reset() {
    std::lock_guard<std::mutex> lock(MDNSSearch::address_list_mutex_);
    MDNSSearch::address_list_.clear();
    MDNSSearch::addressV6_list_.clear();
    MDNSSearch::names_.clear();
  }

  template <typename List>
  static Names NamesOf(const List& list) {
    Names names;
    for (const auto& record : list)
      names.push_back(record.name);
    return names;
  }
};

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

// Several writers append, remove and clear while a reader walks the lists
// under the mutex, as the application does during a search; no record is lost.
constexpr int kWriters = 4;
constexpr int kRecordsPerWriter = 400;

TEST_F(RegistryTest, ConcurrentAppendsRemovalsAndClearsWithAReaderUnderTheMutex) {
  std::atomic<int> writers_done{0};
  std::atomic<std::size_t> bytes_read{0};
  std::thread reader([&] {
    // Bounded: stops when every writer is done, or after a fixed number of passes.
    std::size_t length = 0;
    for (int pass = 0; pass < 1000000 && writers_done.load() < kWriters; ++pass) {
      std::lock_guard<std::mutex> lock(MDNSSearch::address_list_mutex_);
      for (const auto& record : MDNSSearch::address_list_)
        length += record.name.size();
      for (const auto& record : MDNSSearch::addressV6_list_)
        length += record.name.size();
    }
    bytes_read = length;
  });

  std::vector<std::thread> writers;
  for (int w = 0; w < kWriters; ++w) {
    writers.emplace_back([w, &writers_done] {
      const std::string keep = "keep-" + std::to_string(w);
      std::string drop = "drop-" + std::to_string(w);
      for (int i = 0; i < kRecordsPerWriter; ++i) {
        MDNSSearch::AddToAddressList(v4(keep, static_cast<uint32_t>(i)));
        MDNSSearch::AddToAddressV6List(v6(keep, static_cast<uint16_t>(i)));
        MDNSSearch::AddToAddressList(v4(drop));
        MDNSSearch::RemoveFromAddressList(&drop[0]);
      }
      ++writers_done;
    });
  }
  for (auto& writer : writers)
    writer.join();
  reader.join();

  ASSERT_EQ(MDNSSearch::address_list_.size(), static_cast<std::size_t>(kWriters * kRecordsPerWriter));
  ASSERT_EQ(MDNSSearch::addressV6_list_.size(), static_cast<std::size_t>(kWriters * kRecordsPerWriter));
  // Each writer's records keep the order in which that writer appended them.
  std::vector<uint32_t> next(kWriters, 0);
  for (const auto& record : MDNSSearch::address_list_) {
    ASSERT_EQ(record.name.compare(0, 5, "keep-"), 0) << record.name;
    EXPECT_EQ(record.address, next[std::stoi(record.name.substr(5))]++);
  }

  // Clearing races with appends without tearing the list.
  MDNSSearch search;
  std::thread writer([] {
    for (int i = 0; i < 2000; ++i)
      MDNSSearch::AddToAddressList(v4("TV"));
  });
  for (int i = 0; i < 200; ++i) {
    search.ClearAddressList();
    search.ClearAddressV6List();
  }
  writer.join();
  for (const auto& record : MDNSSearch::address_list_)
    ASSERT_EQ(record.name, "TV");
}

}  // namespace
}  // namespace sorvalen_test
