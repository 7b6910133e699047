// Resolve results handed to the handler by hand, as the core would.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <mutex>

#include "service_name_builder.h"
#include "sorvalen/mdns_search_posix.h"

namespace sorvalen {
namespace {

using test::service_name;

class ResolveCallbackTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ClearLists();
    resolve_.query.info = &resolve_.info;
    resolve_.info.name = service_name("Dev 1");
    resolve_.info.port.b[0] = 0;
    resolve_.info.port.b[1] = 80;
  }
  void TearDown() override { ClearLists(); }

  static void ClearLists() {
    std::lock_guard<std::mutex> lock(MDNSSearch::address_list_mutex_);
    MDNSSearch::address_list_.clear();
    MDNSSearch::addressV6_list_.clear();
  }

  void SetIPv4(const char* text) {
    resolve_.info.ip.type = mDNSAddrType_IPv4;
    ASSERT_EQ(inet_pton(AF_INET, text, resolve_.info.ip.ip.v4.b), 1);
  }
  void SetIPv6(const char* text) {
    resolve_.info.ip.type = mDNSAddrType_IPv6;
    ASSERT_EQ(inet_pton(AF_INET6, text, resolve_.info.ip.ip.v6.b), 1);
  }
  void Deliver() { MDNSSearchPosix::ResolveCallback(&MDNSSearchPosix::mdns_storage_, &resolve_.query); }

  SINFO resolve_{};
};

TEST_F(ResolveCallbackTest, IPv4ResultKeepsAddressInNetworkOrderAndPortAsNumber) {
  SetIPv4("10.0.0.7");
  Deliver();

  ASSERT_EQ(MDNSSearch::address_list_.size(), 1u);
  EXPECT_TRUE(MDNSSearch::addressV6_list_.empty());
  const IPAddressV4& record = MDNSSearch::address_list_[0];
  unsigned char bytes[4];
  std::memcpy(bytes, &record.address, sizeof bytes);
  EXPECT_EQ(bytes[0], 10);
  EXPECT_EQ(bytes[1], 0);
  EXPECT_EQ(bytes[2], 0);
  EXPECT_EQ(bytes[3], 7);
  EXPECT_EQ(record.port, 80);
  EXPECT_EQ(record.name, "Dev 1");
  EXPECT_EQ(record.type, "_x._tcp.");
  EXPECT_EQ(record.domain, "local.");
}

TEST_F(ResolveCallbackTest, PortHighByteComesFirst) {
  SetIPv4("192.168.1.20");
  resolve_.info.port.b[0] = 0x1f;
  resolve_.info.port.b[1] = 0x90;
  Deliver();
  ASSERT_EQ(MDNSSearch::address_list_.size(), 1u);
  EXPECT_EQ(MDNSSearch::address_list_[0].port, 8080);
}

TEST_F(ResolveCallbackTest, IPv6ResultGivesHostOrderGroups) {
  SetIPv6("fe80::1");
  Deliver();

  ASSERT_EQ(MDNSSearch::addressV6_list_.size(), 1u);
  EXPECT_TRUE(MDNSSearch::address_list_.empty());
  const IPAddressV6& record = MDNSSearch::addressV6_list_[0];
  const uint16_t expected[8] = {0xfe80, 0, 0, 0, 0, 0, 0, 1};
  for (int i = 0; i < 8; ++i)
    EXPECT_EQ(record.address[i], expected[i]) << "group " << i;
  EXPECT_EQ(record.port, 80);
  EXPECT_EQ(record.name, "Dev 1");
  EXPECT_EQ(record.type, "_x._tcp.");
  EXPECT_EQ(record.domain, "local.");
}

TEST_F(ResolveCallbackTest, EveryGroupOfAFullAddressIsConverted) {
  SetIPv6("2001:db8:1234:5678:9abc:def0:fedc:ba98");
  Deliver();
  ASSERT_EQ(MDNSSearch::addressV6_list_.size(), 1u);
  const uint16_t expected[8] = {0x2001, 0x0db8, 0x1234, 0x5678, 0x9abc, 0xdef0, 0xfedc, 0xba98};
  for (int i = 0; i < 8; ++i)
    EXPECT_EQ(MDNSSearch::addressV6_list_[0].address[i], expected[i]) << "group " << i;
}

TEST_F(ResolveCallbackTest, ResultWithoutAddressAddsNothing) {
  resolve_.info.ip.type = mDNSAddrType_None;
  Deliver();
  resolve_.info.ip.type = 5;
  Deliver();
  EXPECT_TRUE(MDNSSearch::address_list_.empty());
  EXPECT_TRUE(MDNSSearch::addressV6_list_.empty());
}

TEST_F(ResolveCallbackTest, LabelsKeepDotsAndBlanksWithoutEscapes) {
  resolve_.info.name = test::wire_name({"Printer 2.floor \\ A", "_ipp", "_tcp", "my", "home"});
  SetIPv4("10.0.0.7");
  Deliver();
  ASSERT_EQ(MDNSSearch::address_list_.size(), 1u);
  EXPECT_EQ(MDNSSearch::address_list_[0].name, "Printer 2.floor \\ A");
  EXPECT_EQ(MDNSSearch::address_list_[0].type, "_ipp._tcp.");
  EXPECT_EQ(MDNSSearch::address_list_[0].domain, "my.home.");
}

TEST_F(ResolveCallbackTest, LongestLabelsFitTheirTexts) {
  const std::string longest(63, 'z');
  resolve_.info.name = test::wire_name({longest, "_x", "_udp", longest, longest});
  SetIPv4("10.0.0.7");
  Deliver();
  ASSERT_EQ(MDNSSearch::address_list_.size(), 1u);
  EXPECT_EQ(MDNSSearch::address_list_[0].name, longest);
  EXPECT_EQ(MDNSSearch::address_list_[0].type, "_x._udp.");
  EXPECT_EQ(MDNSSearch::address_list_[0].domain, longest + "." + longest + ".");
}

TEST_F(ResolveCallbackTest, IdenticalResultsAreBothRecorded) {
  SetIPv4("10.0.0.7");
  Deliver();
  Deliver();
  ASSERT_EQ(MDNSSearch::address_list_.size(), 2u);
  EXPECT_EQ(MDNSSearch::address_list_[0].name, MDNSSearch::address_list_[1].name);
  EXPECT_EQ(MDNSSearch::address_list_[0].address, MDNSSearch::address_list_[1].address);
}

TEST_F(ResolveCallbackTest, NameThatIsNoServiceNameIsSkipped) {
  resolve_.info.name = test::wire_name({"host", "local"});
  SetIPv4("10.0.0.7");
  Deliver();
  EXPECT_TRUE(MDNSSearch::address_list_.empty());
}

}  // namespace
}  // namespace sorvalen
