// What a search does before its core is up: refuses, and touches nothing.
#include <gtest/gtest.h>

#include <memory>
#include <mutex>

#include "sorvalen/mdns_search_posix.h"

namespace sorvalen {
namespace {

TEST(SearchWithoutCoreTest, StartBeforeInitFailsAndChangesNothing) {
  {
    std::lock_guard<std::mutex> lock(MDNSSearch::address_list_mutex_);
    MDNSSearch::address_list_.push_back(IPAddressV4{});
  }
  MDNSSearch::names_ = {"kept"};
  std::unique_ptr<MDNSSearch> search(MDNSSearch::CreateMDNSSearch());

  EXPECT_FALSE(search->Start(",", "_http._tcp", "local.", 1, ""));
  EXPECT_FALSE(search->GetRunning());
  EXPECT_EQ(search->GetAddressList().size(), 1u);
  EXPECT_EQ(MDNSSearch::names_, std::vector<std::string>{"kept"});
  search->Stop();  // nothing set up: returns at once
  search->Stop();
}

TEST(SearchWithoutCoreTest, RefreshBeforeInitFails) {
  std::unique_ptr<MDNSSearch> search(MDNSSearch::CreateMDNSSearch());
  EXPECT_FALSE(search->RefreshInterfaces());
  search->Destroy();  // never initialised: nothing to shut down
}

TEST(SearchWithoutCoreTest, FactoryGivesThePosixEngine) {
  std::unique_ptr<MDNSSearch> search(MDNSSearch::CreateMDNSSearch());
  EXPECT_NE(dynamic_cast<MDNSSearchPosix*>(search.get()), nullptr);
}

TEST(SearchWithoutCoreTest, ProgramNameIsTheLibrarysName) {
  EXPECT_STREQ(ProgramName, "sorvalen_mdnssearch");
}

}  // namespace
}  // namespace sorvalen
