// The interface table: prefixes, the on-link check, usability, and keeping the
// live table in line with successive reads of the host's interfaces.
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/interfaces_posix.h"

namespace mdns {
namespace {

mDNSAddr addr(const char* text) {
  const mDNSAddr a = address_from_text(text);
  EXPECT_NE(a.type, mDNSAddrType_None) << text;
  return a;
}

TEST(InterfaceRecordTest, SourcesInAnySubnetUpToTheCapOrLinkLocalFromThisLinkAreOnLink) {
  InterfaceRecord eth{};
  EXPECT_FALSE(interface_reset(eth, "a-name-far-too-long-for-an-interface", 7));
  ASSERT_TRUE(interface_reset(eth, "eth0", 7));
  // The third address repeats the first, the sixth has an impossible prefix.
  const std::pair<const char*, int> addresses[] = {
      {"192.0.2.10", 24},   {"198.51.100.10", 25}, {"192.0.2.10", 24}, {"10.1.0.1", 20},
      {"2001:db8::10", 63}, {"10.9.9.9", 33},      {"fe80::10", 64},   {"10.0.0.2", 32},
      {"10.0.0.3", 32},     {"10.0.0.4", 32},      {"10.0.0.5", 32}};
  for (const auto& [address, prefix] : addresses) {
    interface_add_address(eth, addr(address), prefix);
  }
  EXPECT_EQ(eth.naddrs, kMaxInterfaceAddresses);
  // An interface that took a 169.254/16 address itself is on a link-local network.
  InterfaceRecord zeroconf{};
  ASSERT_TRUE(interface_reset(zeroconf, "eth1", 8));
  interface_add_address(zeroconf, addr("169.254.1.1"), 32);
  // source, then whether it is on the link of eth0 with TTL 255, with TTL 64 (a
  // router forwarded it) or unknown, and of eth1 with TTL 64.
  const std::tuple<const char*, bool, bool, bool> sources[] = {
      {"192.0.2.200", true, true, false},
      {"198.51.100.100", true, true, false},
      {"198.51.100.200", false, false, false},
      {"10.1.15.1", true, true, false},
      {"10.1.16.1", false, false, false},
      {"2001:db8::1:abcd", true, true, false},
      {"2001:db8:0:2::1", false, false, false},
      {"::ffff:192.0.2.1", false, false, false},
      {"fe80::dead:beef", true, true, true},  // routers never forward these
      {"febf::1", true, true, true},
      {"fec0::1", false, false, false},
      {"169.254.7.7", true, false, true},
      {"169.253.7.7", false, false, false},
      {"10.0.0.4", true, true, false},
      {"10.0.0.5", false, false, false},  // past the cap
  };
  for (const auto& [source, with_255, with_64, beside_own] : sources) {
    EXPECT_EQ(interface_source_on_link(eth, addr(source), kLinkTtl), with_255) << source;
    EXPECT_EQ(interface_source_on_link(eth, addr(source), 64), with_64) << source;
    EXPECT_EQ(interface_source_on_link(eth, addr(source), 0), with_64) << source;
    EXPECT_EQ(interface_source_on_link(zeroconf, addr(source), 64), beside_own) << source;
  }
  // Real hosts give netmasks, which must become the prefixes checked above.
  const uint8_t masks[][4] = {{255, 255, 240, 0}, {255, 0, 255, 0}, {0, 0, 0, 0}};
  EXPECT_EQ(prefix_length_from_mask(masks[0], 4), 20);
  EXPECT_EQ(prefix_length_from_mask(masks[1], 4), -1);
  EXPECT_EQ(prefix_length_from_mask(masks[2], 4), 0);
  EXPECT_EQ(ipv4_mask_from_prefix(20).ip.v4.NotAnInteger, addr("255.255.240.0").ip.v4.NotAnInteger);
}

// The use the core makes of each interface and family, and why not, as mDNS_JudgeInterfaces tells it.
TEST(InterfaceUse, TheFirstReasonThatHoldsPerFamily) {
  const auto judge = [](std::vector<std::tuple<const char*, InterfaceFlags, const char*>> host) {
    InterfaceSnapshot snapshot;
    uint32_t ifindex = 1;
    for (const auto& [name, flags, address] : host) {
      InterfaceRecord* entry = snapshot_entry(snapshot, name, ifindex++, flags);
      if (*address != '\0') {
        interface_add_address(*entry, addr(address), std::strchr(address, ':') != nullptr ? 64 : 24);
      }
    }
    InterfaceUses uses;
    judge_interfaces(snapshot, uses);
    std::string s;
    for (size_t i = 0; i < snapshot.count; ++i) {
      s += " " + std::string(snapshot.entries[i].info.ifname) + "=" + std::to_string(uses.ipv4[i]) + "/" +
           std::to_string(uses.ipv6[i]);
    }
    return s.substr(1);
  };
  const InterfaceFlags loopback{true, false, true};
  const InterfaceFlags up{true, true, false};
  // Used 0, down 1, loopback while another is usable 2, no multicast 3, no address 4.
  EXPECT_EQ(judge({{"lo", loopback, "::1"},
                   {"eth0", up, "192.0.2.1"},
                   {"tun0", {true, false, false}, "10.0.0.1"},
                   {"eth1", {false, true, false}, "192.0.2.2"},
                   {"eth2", up, ""}}),
            "lo=2/2 eth0=0/4 tun0=3/3 eth1=1/1 eth2=4/4");
  EXPECT_EQ(judge({{"lo", loopback, "::1"}, {"eth1", {false, true, false}, "192.0.2.2"}}), "lo=4/3 eth1=1/1");
  EXPECT_EQ(judge({{"lo", loopback, "127.0.0.1"}, {"lo", loopback, "::1"}}), "lo=0/3");
  EXPECT_EQ(judge({{"lo", {false, false, true}, "127.0.0.1"}, {"eth0", up, "fe80::1"}}), "lo=1/1 eth0=4/0");
}

// Logs joins and leaves as " +ifindex/family" and " -ifindex/family"; the join
// equal to `failing` fails.
struct LoggingMembership : Membership {
  bool join(uint32_t ifindex, int family) override { return note("+", ifindex, family) != failing; }
  void leave(uint32_t ifindex, int family) override { note("-", ifindex, family); }
  std::string note(const char* sign, uint32_t ifindex, int family) {
    const std::string what = sign + std::to_string(ifindex) + "/" + std::to_string(family);
    log += " " + what;
    return what;
  }
  std::string log;
  std::string failing;
};

struct Host {
  std::string name;
  uint32_t ifindex;
  InterfaceFlags flags;
  std::vector<std::pair<const char*, int>> addresses;
};

std::string id_text(mDNSInterfaceID id) {
  return std::to_string(reinterpret_cast<uintptr_t>(id));
}

// Brings the table in line with a read of `host`.  Returns what it then lists,
// each interface as name=ID(usable families) and found again by its ID, then
// " | added IDs | removed IDs | joins and leaves".
std::string read(InterfaceRecord (&table)[mDNS_MaxInterfaces], NetworkInterfaceInfo*& head,
                 const std::vector<Host>& host, const char* failing = "") {
  InterfaceSnapshot snapshot;
  for (const Host& h : host) {
    InterfaceRecord* entry = snapshot_entry(snapshot, h.name.c_str(), h.ifindex, h.flags);
    for (const auto& [address, prefix] : h.addresses) {
      interface_add_address(*entry, addr(address), prefix);
    }
  }
  mark_usable(snapshot);
  LoggingMembership membership;
  membership.failing = failing;
  InterfaceChanges changes;
  reconcile_interfaces(table, snapshot, membership, &head, changes);
  std::string s;
  for (const NetworkInterfaceInfo* i = head; i != nullptr; i = i->next) {
    const InterfaceRecord* r = find_interface(table, i->InterfaceID);
    const bool found = r != nullptr && &r->info == i;
    s += " " + std::string(i->ifname) + "=" + id_text(i->InterfaceID) + (found ? "(" : "?(") +
         (found && r->v4usable ? "4" : "") + (found && r->v6usable ? "6" : "") + ")";
  }
  for (const auto& [ids, count] :
       {std::pair{changes.added, changes.added_count}, std::pair{changes.removed, changes.removed_count}}) {
    s += " |";
    for (size_t i = 0; i < count; ++i) {
      s += " " + id_text(ids[i]);
    }
  }
  return s.substr(1) + " |" + membership.log;
}

TEST(InterfaceTable, IdsStayWithNamesAndChangesAreReported) {
  const InterfaceFlags up{true, true, false};
  const Host lo{"lo", 1, {true, false, true}, {{"127.0.0.1", 8}, {"::1", 128}}};
  const Host eth0{"eth0", 2, up, {{"192.0.2.10", 24}, {"fe80::2", 64}}};
  const Host eth1{"eth1", 3, up, {{"198.51.100.10", 24}}};
  const Host eth1_v6{"eth1", 3, up, {{"198.51.100.10", 24}, {"fe80::3", 64}}};
  const Host eth1_down{"eth1", 3, {false, true, false}, {{"198.51.100.10", 24}}};
  const Host tun0{"tun0", 9, {true, false, false}, {{"10.8.0.1", 24}}};  // no multicast
  const Host eth2{"eth2", 4, up, {{"203.0.113.5", 24}}};
  const Host eth0_recreated{"eth0", 12, up, eth0.addresses};
  const Host eth3{"eth3", 5, up, {{"192.0.2.99", 24}, {"fe80::5", 64}}};
  // host, the join that fails, what the table then lists and what changed
  const std::tuple<std::vector<Host>, const char*, const char*> steps[] = {
      // Loopback only while nothing else is usable, and without IPv6 multicast.
      {{lo}, "", "lo=1(4) | 1 | | +1/4"},
      {{lo, eth0, eth1_down, tun0}, "", "eth0=2(46) | 2 | 1 | +2/4 +2/6 -1/4"},
      {{eth0, eth1}, "", "eth0=2(46) eth1=3(4) | 3 | | +3/4"},
      {{eth1, eth0}, "", "eth0=2(46) eth1=3(4) | | |"},
      {{eth1_v6}, "", "eth1=3(46) | | 2 | +3/6 -2/4 -2/6"},
      // A new name takes a never-used slot, not the one eth0 left.
      {{eth2, eth1}, "", "eth1=3(4) eth2=4(4) | 4 | | +4/4 -3/6"},
      {{eth0, eth1, eth2}, "", "eth0=2(46) eth1=3(4) eth2=4(4) | 2 | | +2/4 +2/6"},
      // Same name on a new index: another interface, in the old one's slot.
      {{eth0_recreated, eth1, eth2}, "", "eth0=2(46) eth1=3(4) eth2=4(4) | 2 | 2 | -2/4 -2/6 +12/4 +12/6"},
      // A family whose join fails is not used.
      {{eth3}, "+5/4", "eth3=5(6) | 5 | 2 3 4 | +5/4 +5/6 -12/4 -12/6 -3/4 -4/4"},
      {{lo}, "", "lo=1(4) | 1 | 5 | +1/4 -5/6"},
  };
  InterfaceRecord table[mDNS_MaxInterfaces] = {};
  NetworkInterfaceInfo* head = nullptr;
  for (size_t i = 0; i < std::size(steps); ++i) {
    const auto& [host, failing, expected] = steps[i];
    EXPECT_EQ(read(table, head, host, failing), expected) << "step " << i;
  }
  EXPECT_EQ(find_interface(table, interface_id_of_slot(1)), nullptr);
  LoggingMembership membership;
  clear_interfaces(table, membership, &head);
  EXPECT_TRUE(head == nullptr && membership.log == " -1/4");

  // Once every slot has had a name, a new name takes the slot of a vanished one.
  std::vector<Host> all;
  for (uint32_t i = 0; i < mDNS_MaxInterfaces; ++i) {
    all.push_back({"if" + std::to_string(i), 100 + i, up, {{"192.0.2.1", 24}}});
  }
  read(table, head, all);
  all[5] = {"new", 99, up, {{"192.0.2.1", 24}}};
  read(table, head, {all.begin(), all.begin() + 5});
  EXPECT_NE(read(table, head, all).find(" new=6(4) "), std::string::npos);
}

}  // namespace
}  // namespace mdns
