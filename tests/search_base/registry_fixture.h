// Every registry test starts from empty process-wide lists and filter words.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sorvalen/mdns_search.h"

namespace sorvalen_test {

using sorvalen::MDNSSearch;
using Names = std::vector<std::string>;

inline sorvalen::IPAddressV4 v4(const std::string& name, uint32_t address = 0) {
  sorvalen::IPAddressV4 record;
  record.address = address;
  record.name = name;
  return record;
}

inline sorvalen::IPAddressV6 v6(const std::string& name, uint16_t first_group = 0) {
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

}  // namespace sorvalen_test
