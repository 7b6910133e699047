// The device records are plain values: defaults, byte order of their fields and
// independent copies.
#include <gtest/gtest.h>

#include <cstring>

#include "sorvalen/ip_address.h"

namespace {

using sorvalen::IPAddressV4;
using sorvalen::IPAddressV6;

TEST(DeviceRecords, UnfilledIPv4RecordIsZeroAndEmpty) {
  const IPAddressV4 record;
  EXPECT_EQ(record.address, 0u);
  EXPECT_EQ(record.port, 0u);
  EXPECT_TRUE(record.name.empty());
  EXPECT_TRUE(record.type.empty());
  EXPECT_TRUE(record.domain.empty());
}

TEST(DeviceRecords, IPv4AddressKeepsWireOrderAndPortIsNumeric) {
  IPAddressV4 record;
  const unsigned char wire[4] = {192, 168, 1, 20};
  std::memcpy(&record.address, wire, sizeof wire);
  record.port = 80;
  unsigned char memory[4];
  std::memcpy(memory, &record.address, sizeof memory);
  EXPECT_EQ(std::memcmp(memory, wire, 4), 0);
  EXPECT_EQ(record.port, 80);
  static_assert(sizeof(record.address) == 4 && sizeof(record.port) == 2, "fixed-width fields");
}

TEST(DeviceRecords, IPv6RecordHoldsEightGroups) {
  IPAddressV6 record;
  for (auto group : record.address) {
    EXPECT_EQ(group, 0u);
  }
  static_assert(sizeof(record.address) == 16, "eight 16-bit groups");
}

TEST(DeviceRecords, CopiesAreIndependent) {
  IPAddressV6 original;
  original.address[0] = 0xfe80;
  original.address[7] = 1;
  original.name = "Speaker";
  IPAddressV6 copy = original;
  original.address[0] = 0;
  original.name[0] = 'X';
  EXPECT_EQ(copy.address[0], 0xfe80);
  EXPECT_EQ(copy.address[7], 1);
  EXPECT_EQ(copy.name, "Speaker");
}

}  // namespace
