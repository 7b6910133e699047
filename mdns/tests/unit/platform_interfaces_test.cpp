// The interface table: prefixes, usability, and keeping the live table in line
// with successive interface reads.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "interfaces_posix.h"
#include "platform.h"

namespace mdns {
namespace {

mDNSAddr addr(const char* text) {
  const mDNSAddr a = address_from_text(text);
  EXPECT_NE(a.type, mDNSAddrType_None) << text;
  return a;
}

TEST(InterfaceAddresses, PrefixesHonourPartialBytesAndFamilies) {
  EXPECT_TRUE(address_in_prefix(addr("10.1.2.3"), addr("10.1.0.1"), 20));
  EXPECT_FALSE(address_in_prefix(addr("10.1.16.3"), addr("10.1.0.1"), 20));
  EXPECT_TRUE(address_in_prefix(addr("1.2.3.4"), addr("9.9.9.9"), 0));
  EXPECT_FALSE(address_in_prefix(addr("192.0.2.1"), addr("192.0.2.1"), 33));
  EXPECT_FALSE(address_in_prefix(addr("192.0.2.1"), addr("::ffff:192.0.2.1"), 24));
  EXPECT_FALSE(address_in_prefix(addr("2001:db8:1:3::99"), addr("2001:db8:1:2::1"), 64));
  const uint8_t mask24[4] = {255, 255, 255, 0};
  const uint8_t mask_holes[4] = {255, 0, 255, 0};
  EXPECT_EQ(prefix_length_from_mask(mask24, 4), 24);
  EXPECT_EQ(prefix_length_from_mask(mask_holes, 4), -1);
  EXPECT_EQ(ipv4_mask_from_prefix(20).ip.v4.b[2], 0xF0);
  EXPECT_TRUE(is_ipv6_link_local(addr("febf::1")));
  EXPECT_FALSE(is_ipv6_link_local(addr("fec0::1")));
}

TEST(InterfaceRecord, EveryAddressCountsForTheOnLinkCheckUpToTheCap) {
  NetworkInterfaceInfo info{};
  EXPECT_FALSE(interface_reset(info, "a-name-far-too-long-for-an-interface", 7));
  ASSERT_TRUE(interface_reset(info, "eth0", 7));
  interface_add_address(info, addr("192.0.2.10"), 24);
  interface_add_address(info, addr("198.51.100.10"), 25);
  interface_add_address(info, addr("192.0.2.10"), 24);  // repeated: kept once
  interface_add_address(info, addr("2001:db8::10"), 64);
  interface_add_address(info, addr("10.9.9.9"), 40);  // impossible prefix: ignored
  EXPECT_EQ(info.naddrs, 3);
  EXPECT_TRUE(interface_source_on_link(info, addr("192.0.2.200")));
  EXPECT_TRUE(interface_source_on_link(info, addr("198.51.100.100")));
  EXPECT_FALSE(interface_source_on_link(info, addr("198.51.100.200")));  // outside the /25
  EXPECT_TRUE(interface_source_on_link(info, addr("2001:db8::abcd")));
  EXPECT_TRUE(interface_source_on_link(info, addr("fe80::dead:beef")));  // any link-local
  EXPECT_FALSE(interface_source_on_link(info, addr("2001:db8:1::1")));
  for (int i = 1; i <= mDNS_MaxInterfaceAddrs; ++i) {
    interface_add_address(info, addr(("10.0.0." + std::to_string(i)).c_str()), 32);
  }
  EXPECT_EQ(info.naddrs, mDNS_MaxInterfaceAddrs);
}

// Records what the table asked of the sockets; fails the joins it is told to.
class RecordingMembership : public Membership {
 public:
  bool join(uint32_t ifindex, int family) override {
    joins.emplace_back(ifindex, family);
    return !(ifindex == failing_index && family == failing_family);
  }
  void leave(uint32_t ifindex, int family) override { leaves.emplace_back(ifindex, family); }

  std::vector<std::pair<uint32_t, int>> joins;
  std::vector<std::pair<uint32_t, int>> leaves;
  uint32_t failing_index = 0;
  int failing_family = 0;
};

struct HostInterface {
  const char* name;
  uint32_t ifindex;
  InterfaceFlags flags;
  std::vector<std::pair<const char*, int>> addresses;
};

const InterfaceFlags kUpMulticast{true, true, false};
const InterfaceFlags kLoopback{true, false, true};

InterfaceSnapshot read_of(const std::vector<HostInterface>& host) {
  InterfaceSnapshot snapshot;
  for (const auto& h : host) {
    NetworkInterfaceInfo* entry = snapshot_entry(snapshot, h.name, h.ifindex, h.flags);
    EXPECT_NE(entry, nullptr);
    for (const auto& a : h.addresses) {
      interface_add_address(*entry, addr(a.first), a.second);
    }
  }
  mark_usable(snapshot);
  return snapshot;
}

std::vector<std::string> listed_names(const NetworkInterfaceInfo* head) {
  std::vector<std::string> names;
  for (const NetworkInterfaceInfo* i = head; i != nullptr; i = i->next) {
    names.emplace_back(i->ifname);
  }
  return names;
}

using Names = std::vector<std::string>;

class InterfaceTable : public ::testing::Test {
 protected:
  void read(const std::vector<HostInterface>& host) {
    removed = RemovedInterfaces{};
    reconcile_interfaces(table, read_of(host), membership, &head, removed);
  }

  NetworkInterfaceInfo table[mDNS_MaxInterfaces] = {};
  NetworkInterfaceInfo* head = nullptr;
  RecordingMembership membership;
  RemovedInterfaces removed;
};

const HostInterface kLo{"lo", 1, kLoopback, {{"127.0.0.1", 8}, {"::1", 128}}};
const HostInterface kEth0{"eth0", 2, kUpMulticast, {{"192.0.2.10", 24}, {"fe80::2", 64}}};
const HostInterface kEth1{"eth1", 3, kUpMulticast, {{"198.51.100.10", 24}}};

TEST_F(InterfaceTable, UsesUpMulticastInterfacesAndLoopbackOnlyWhenNothingElse) {
  read({kLo});
  EXPECT_EQ(listed_names(head), Names{"lo"});
  EXPECT_TRUE(head->v4usable);
  EXPECT_FALSE(head->v6usable);  // no IPv6 multicast route without the multicast flag
  HostInterface down = kEth1;
  down.flags.up = false;
  const HostInterface no_multicast{"tun0", 9, {true, false, false}, {{"10.8.0.1", 24}}};
  read({kLo, kEth0, down, no_multicast});
  EXPECT_EQ(listed_names(head), Names{"eth0"});
  ASSERT_EQ(removed.count, 1u);
  EXPECT_EQ(removed.ids[0], platform_interface_id(1));
}

TEST_F(InterfaceTable, KeepsIdsAcrossReadsAndLeavesVanishedInterfaces) {
  read({kEth0, kEth1});
  EXPECT_EQ(listed_names(head), (Names{"eth0", "eth1"}));
  EXPECT_EQ(membership.joins.size(), 3u);  // eth0 v4+v6, eth1 v4
  const NetworkInterfaceInfo* eth1 = find_interface(head, platform_interface_id(3));
  ASSERT_NE(eth1, nullptr);
  read({kEth0, kEth1});
  EXPECT_EQ(membership.joins.size(), 3u);
  EXPECT_EQ(removed.count, 0u);
  EXPECT_EQ(find_interface(head, platform_interface_id(3)), eth1);  // same slot, same ID

  read({kEth1});
  EXPECT_EQ(listed_names(head), Names{"eth1"});
  ASSERT_EQ(removed.count, 1u);
  EXPECT_EQ(removed.ids[0], platform_interface_id(2));
  EXPECT_EQ(membership.leaves.size(), 2u);

  HostInterface recreated = kEth0;  // a name on a new index is a new interface
  recreated.ifindex = 12;
  read({kEth0, kEth1});
  read({recreated, kEth1});
  ASSERT_EQ(removed.count, 1u);
  EXPECT_EQ(removed.ids[0], platform_interface_id(2));
  EXPECT_NE(find_interface(head, platform_interface_id(12)), nullptr);

  membership.leaves.clear();
  clear_interfaces(table, membership, &head);
  EXPECT_EQ(head, nullptr);
  EXPECT_EQ(membership.leaves.size(), 3u);
}

TEST_F(InterfaceTable, FollowsAddressChangesOfAFamily) {
  read({kEth1});
  HostInterface with_v6 = kEth1;
  with_v6.addresses.emplace_back("fe80::3", 64);
  read({with_v6});
  ASSERT_EQ(membership.joins.size(), 2u);
  EXPECT_EQ(membership.joins[1], std::make_pair(3u, int{mDNSAddrType_IPv6}));
  read({kEth1});
  ASSERT_EQ(membership.leaves.size(), 1u);
  EXPECT_EQ(membership.leaves[0], std::make_pair(3u, int{mDNSAddrType_IPv6}));
  EXPECT_EQ(removed.count, 0u);
}

TEST_F(InterfaceTable, AFailedJoinMakesTheFamilyUnusable) {
  membership.failing_index = 2;
  membership.failing_family = mDNSAddrType_IPv4;
  read({kEth0});
  const NetworkInterfaceInfo* eth0 = find_interface(head, platform_interface_id(2));
  ASSERT_NE(eth0, nullptr);
  EXPECT_FALSE(eth0->v4usable);
  EXPECT_TRUE(eth0->v6usable);

  membership.failing_family = mDNSAddrType_IPv6;
  read({kEth1, HostInterface{"eth9", 2, kUpMulticast, {{"fe80::9", 64}}}});
  // eth0 went, and "eth9" on index 2 could join nothing: neither is listed.
  EXPECT_EQ(listed_names(head), Names{"eth1"});
}

TEST(InterfaceSnapshotTest, AddressesOfOneNameShareAnEntryAndTheTableIsBounded) {
  InterfaceSnapshot snapshot;
  NetworkInterfaceInfo* a = snapshot_entry(snapshot, "eth0", 2, kUpMulticast);
  NetworkInterfaceInfo* b = snapshot_entry(snapshot, "eth0", 2, kUpMulticast);
  EXPECT_EQ(a, b);
  for (uint32_t i = 1; i < 2 * mDNS_MaxInterfaces; ++i) {
    snapshot_entry(snapshot, ("if" + std::to_string(i)).c_str(), 100 + i, kUpMulticast);
  }
  EXPECT_EQ(snapshot.count, static_cast<size_t>(mDNS_MaxInterfaces));
  EXPECT_EQ(snapshot_entry(snapshot, "one-more", 999, kUpMulticast), nullptr);
}

}  // namespace
}  // namespace mdns
