// Several writers append, remove and clear while a reader walks the lists under
// the mutex, as the application does during a search.  Run under
// ThreadSanitizer by scripts/test.sh; here it also checks that no record is lost.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "registry_fixture.h"

namespace sorvalen_test {
namespace {

constexpr int kWriters = 4;
constexpr int kRecordsPerWriter = 400;

TEST_F(RegistryTest, ConcurrentAppendsAndRemovalsWithAReaderUnderTheMutex) {
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
