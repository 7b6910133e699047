// Every registry test starts from empty process-wide lists and filter words.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "sorvalen/mdns_search.h"

namespace sorvalen_test {

inline sorvalen::IPAddressV4 v4(const std::string& name, uint32_t address = 0, uint16_t port = 0) {
  sorvalen::IPAddressV4 record;
  record.address = address;
  record.port = port;
  record.name = name;
  record.type = "_http._tcp.";
  record.domain = "local.";
  return record;
}

inline sorvalen::IPAddressV6 v6(const std::string& name, uint16_t first_group = 0) {
  sorvalen::IPAddressV6 record;
  record.address[0] = first_group;
  record.name = name;
  record.type = "_http._tcp.";
  record.domain = "local.";
  return record;
}

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { Reset(); }

  static void Reset() {
    std::lock_guard<std::mutex> lock(sorvalen::MDNSSearch::address_list_mutex_);
    sorvalen::MDNSSearch::address_list_.clear();
    sorvalen::MDNSSearch::addressV6_list_.clear();
    sorvalen::MDNSSearch::names_.clear();
  }

  static std::vector<std::string> V4Names() {
    std::vector<std::string> names;
    for (const auto& record : sorvalen::MDNSSearch::address_list_)
      names.push_back(record.name);
    return names;
  }

  static std::vector<std::string> V6Names() {
    std::vector<std::string> names;
    for (const auto& record : sorvalen::MDNSSearch::addressV6_list_)
      names.push_back(record.name);
    return names;
  }
};

}  // namespace sorvalen_test
