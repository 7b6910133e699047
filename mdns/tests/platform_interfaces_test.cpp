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

TEST(InterfaceAddresses, PrefixMatchingHonoursPartialBytesAndFamilies) {
  EXPECT_TRUE(address_in_prefix(addr("192.0.2.77"), addr("192.0.2.10"), 24));
  EXPECT_FALSE(address_in_prefix(addr("192.0.3.77"), addr("192.0.2.10"), 24));
  EXPECT_TRUE(address_in_prefix(addr("10.1.2.3"), addr("10.1.0.1"), 20));
  EXPECT_FALSE(address_in_prefix(addr("10.1.16.3"), addr("10.1.0.1"), 20));
  EXPECT_TRUE(address_in_prefix(addr("1.2.3.4"), addr("9.9.9.9"), 0));
  EXPECT_FALSE(address_in_prefix(addr("192.0.2.1"), addr("192.0.2.1"), 33));
  EXPECT_FALSE(address_in_prefix(addr("192.0.2.1"), addr("::ffff:192.0.2.1"), 24));
  EXPECT_TRUE(address_in_prefix(addr("2001:db8:1:2::99"), addr("2001:db8:1:2::1"), 64));
  EXPECT_FALSE(address_in_prefix(addr("2001:db8:1:3::99"), addr("2001:db8:1:2::1"), 64));
  EXPECT_FALSE(address_in_prefix(mDNSAddr{}, mDNSAddr{}, 0));
}

TEST(InterfaceAddresses, MasksAndTexts) {
  const uint8_t mask24[4] = {255, 255, 255, 0};
  const uint8_t mask_holes[4] = {255, 0, 255, 0};
  const uint8_t mask_all[16] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(prefix_length_from_mask(mask24, 4), 24);
  EXPECT_EQ(prefix_length_from_mask(mask_holes, 4), -1);
  EXPECT_EQ(prefix_length_from_mask(mask_all, 16), 128);
  const mDNSAddr m20 = ipv4_mask_from_prefix(20);
  EXPECT_EQ(m20.ip.v4.b[1], 255);
  EXPECT_EQ(m20.ip.v4.b[2], 0xF0);
  EXPECT_EQ(m20.ip.v4.b[3], 0);
  EXPECT_EQ(address_from_text("not an address").type, mDNSAddrType_None);
  EXPECT_EQ(address_from_text(nullptr).type, mDNSAddrType_None);
  EXPECT_TRUE(is_ipv6_link_local(addr("fe80::1")));
  EXPECT_TRUE(is_ipv6_link_local(addr("febf::1")));
  EXPECT_FALSE(is_ipv6_link_local(addr("fec0::1")));
  EXPECT_FALSE(is_ipv6_link_local(addr("169.254.1.1")));
}

TEST(InterfaceRecord, KeepsEveryAddressForTheOnLinkCheck) {
  NetworkInterfaceInfo info{};
  ASSERT_TRUE(interface_reset(info, "eth0", 7));
  EXPECT_EQ(info.InterfaceID, platform_interface_id(7));
  interface_add_address(info, addr("192.0.2.10"), 24);
  interface_add_address(info, addr("198.51.100.10"), 25);
  interface_add_address(info, addr("192.0.2.10"), 24);  // repeated: kept once
  interface_add_address(info, addr("2001:db8::10"), 64);
  interface_add_address(info, addr("fe80::10"), 64);
  EXPECT_EQ(info.naddrs, 4);
  EXPECT_EQ(info.v4addr.ip.v4.b[0], 192);
  EXPECT_EQ(info.v4mask.ip.v4.b[3], 0);
  EXPECT_TRUE(is_ipv6_link_local(info.v6addr));

  EXPECT_TRUE(interface_source_on_link(info, addr("192.0.2.200")));
  EXPECT_TRUE(interface_source_on_link(info, addr("198.51.100.100")));
  EXPECT_FALSE(interface_source_on_link(info, addr("198.51.100.200")));  // outside the /25
  EXPECT_FALSE(interface_source_on_link(info, addr("203.0.113.1")));
  EXPECT_TRUE(interface_source_on_link(info, addr("2001:db8::abcd")));
  EXPECT_TRUE(interface_source_on_link(info, addr("fe80::dead:beef")));  // any link-local
  EXPECT_FALSE(interface_source_on_link(info, addr("2001:db8:1::1")));
}

TEST(InterfaceRecord, RejectsNamesThatDoNotFitAndCapsTheAddresses) {
  NetworkInterfaceInfo info{};
  EXPECT_FALSE(interface_reset(info, "a-name-far-too-long-for-an-interface", 3));
  EXPECT_FALSE(interface_reset(info, "eth0", 0));
  ASSERT_TRUE(interface_reset(info, "eth0", 3));
  for (int i = 1; i <= mDNS_MaxInterfaceAddrs + 4; ++i) {
    interface_add_address(info, addr(("10.0.0." + std::to_string(i)).c_str()), 32);
  }
  EXPECT_EQ(info.naddrs, mDNS_MaxInterfaceAddrs);
  interface_add_address(info, addr("10.9.9.9"), 40);  // impossible prefix: ignored
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

InterfaceFlags up_multicast() {
  InterfaceFlags f;
  f.up = true;
  f.multicast = true;
  return f;
}

InterfaceFlags loopback() {
  InterfaceFlags f;
  f.up = true;
  f.loopback = true;
  return f;
}

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

const HostInterface kLo{"lo", 1, loopback(), {{"127.0.0.1", 8}, {"::1", 128}}};
const HostInterface kEth0{"eth0", 2, up_multicast(), {{"192.0.2.10", 24}, {"fe80::2", 64}}};
const HostInterface kEth1{"eth1", 3, up_multicast(), {{"198.51.100.10", 24}}};

TEST_F(InterfaceTable, LoopbackIsUsedOnlyWhenNothingElseIs) {
  read({kLo});
  EXPECT_EQ(listed_names(head), Names{"lo"});
  EXPECT_TRUE(head->v4usable);
  EXPECT_FALSE(head->v6usable);  // no IPv6 multicast route without the multicast flag
  read({kLo, kEth0});
  EXPECT_EQ(listed_names(head), Names{"eth0"});
  ASSERT_EQ(removed.count, 1u);
  EXPECT_EQ(removed.ids[0], platform_interface_id(1));
}

TEST_F(InterfaceTable, SkipsInterfacesThatAreDownOrWithoutMulticast) {
  HostInterface down = kEth1;
  down.flags.up = false;
  HostInterface no_multicast{"tun0", 9, InterfaceFlags{}, {{"10.8.0.1", 24}}};
  no_multicast.flags.up = true;
  read({kLo, kEth0, down, no_multicast});
  EXPECT_EQ(listed_names(head), Names{"eth0"});
}

TEST_F(InterfaceTable, JoinsEachFamilyOnceAndKeepsIdsAcrossReads) {
  read({kEth0, kEth1});
  EXPECT_EQ(listed_names(head), (Names{"eth0", "eth1"}));
  EXPECT_EQ(membership.joins.size(), 3u);  // eth0 v4+v6, eth1 v4
  const NetworkInterfaceInfo* eth1 = find_interface(head, platform_interface_id(3));
  ASSERT_NE(eth1, nullptr);
  EXPECT_TRUE(eth1->v4usable);
  EXPECT_FALSE(eth1->v6usable);

  read({kEth0, kEth1});
  EXPECT_EQ(membership.joins.size(), 3u);
  EXPECT_TRUE(membership.leaves.empty());
  EXPECT_EQ(removed.count, 0u);
  EXPECT_EQ(find_interface(head, platform_interface_id(3)), eth1);  // same slot, same ID
}

TEST_F(InterfaceTable, VanishedInterfacesAreLeftAndReported) {
  read({kEth0, kEth1});
  read({kEth1});
  EXPECT_EQ(listed_names(head), Names{"eth1"});
  ASSERT_EQ(removed.count, 1u);
  EXPECT_EQ(removed.ids[0], platform_interface_id(2));
  EXPECT_EQ(membership.leaves.size(), 2u);
  EXPECT_EQ(find_interface(head, platform_interface_id(2)), nullptr);

  read({kEth0, kEth1});  // comes back: joined again, in a free slot
  EXPECT_EQ(listed_names(head), (Names{"eth0", "eth1"}));
  EXPECT_EQ(membership.joins.size(), 5u);
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
  read({kEth1, HostInterface{"eth9", 2, up_multicast(), {{"fe80::9", 64}}}});
  // eth0 went, and "eth9" on index 2 could join nothing: neither is listed.
  EXPECT_EQ(listed_names(head), Names{"eth1"});
}

TEST_F(InterfaceTable, ANameOnANewIndexIsANewInterface) {
  read({kEth0});
  HostInterface recreated = kEth0;
  recreated.ifindex = 12;
  read({recreated});
  ASSERT_EQ(removed.count, 1u);
  EXPECT_EQ(removed.ids[0], platform_interface_id(2));
  ASSERT_NE(head, nullptr);
  EXPECT_EQ(head->InterfaceID, platform_interface_id(12));
  EXPECT_EQ(head->next, nullptr);
}

TEST_F(InterfaceTable, ClearingLeavesEveryGroup) {
  read({kEth0, kEth1});
  clear_interfaces(table, membership, &head);
  EXPECT_EQ(head, nullptr);
  EXPECT_EQ(membership.leaves.size(), 3u);
}

TEST(InterfaceSnapshotTest, AddressesOfOneNameShareAnEntryAndTheTableIsBounded) {
  InterfaceSnapshot snapshot;
  NetworkInterfaceInfo* a = snapshot_entry(snapshot, "eth0", 2, up_multicast());
  NetworkInterfaceInfo* b = snapshot_entry(snapshot, "eth0", 2, up_multicast());
  EXPECT_EQ(a, b);
  for (uint32_t i = 1; i < 2 * mDNS_MaxInterfaces; ++i) {
    snapshot_entry(snapshot, ("if" + std::to_string(i)).c_str(), 100 + i, up_multicast());
  }
  EXPECT_EQ(snapshot.count, static_cast<size_t>(mDNS_MaxInterfaces));
  EXPECT_EQ(snapshot_entry(snapshot, "one-more", 999, up_multicast()), nullptr);
}

TEST(HostInterfaces, ReadingTheHostListsLoopback) {
  // Reads only (no socket, nothing sent): every Linux host has a loopback.
  InterfaceSnapshot snapshot;
  ASSERT_TRUE(read_host_interfaces(snapshot));
  bool found_loopback = false;
  for (size_t i = 0; i < snapshot.count; ++i) {
    found_loopback = found_loopback || snapshot.flags[i].loopback;
  }
  EXPECT_TRUE(found_loopback);
}

}  // namespace
}  // namespace mdns
