// The sockets the core opens, checked from the kernel's side, in a fresh
// namespace with nothing but loopback.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "engine/engine.h"
#include "mdns/mdns.h"
#include "platform/platform_state.h"
#include "platform/sockets_posix.h"
#include "virtual_lan_requirement.h"

namespace mdns::vlan_test {
namespace {

int int_option(int fd, int level, int name) {
  int value = -1;
  socklen_t length = sizeof value;
  EXPECT_EQ(getsockopt(fd, level, name, &value, &length), 0) << std::strerror(errno);
  return value;
}

void send_to_group_on_loopback(int count, size_t size) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const ip_mreqn out_if{{}, {}, static_cast<int>(if_nametoindex("lo"))};
  ASSERT_EQ(setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &out_if, sizeof out_if), 0);
  const sockaddr_in group{AF_INET, htons(5353), {htonl(0xE00000FB)}, {}};  // 224.0.0.251
  const std::vector<uint8_t> message(size, 0);
  for (int i = 0; i < count; ++i) {
    sendto(fd, message.data(), message.size(), 0, reinterpret_cast<const sockaddr*>(&group), sizeof group);
  }
  close(fd);
}

// One pass of an application's loop, waiting at most `wait_ms`; returns the counters after it.
const Counters& one_pass(mDNS& m, int wait_ms) {
  fd_set readfds;
  FD_ZERO(&readfds);
  int nfds = 0;
  timeval timeout{0, static_cast<suseconds_t>(wait_ms * 1000)};
  mDNSPosixGetFDSet(&m, &nfds, &readfds, &timeout);
  if (select(nfds, &readfds, nullptr, nullptr, &timeout) < 0) {
    FD_ZERO(&readfds);
  }
  mDNSPosixProcessFDSet(&m, &readfds);
  return engine_counters(&m);
}

void check_on_loopback(mDNS& m) {
  const PlatformState& p = platform_of(&m);
  for (int fd : {p.sock_v4, p.sock_v6, p.one_shot_v4, p.one_shot_v6}) {
    ASSERT_GE(fd, 0);
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  }
  EXPECT_EQ(int_option(p.sock_v4, IPPROTO_IP, IP_MULTICAST_TTL), 255);
  EXPECT_EQ(int_option(p.one_shot_v4, IPPROTO_IP, IP_MULTICAST_TTL), 255);
  EXPECT_EQ(int_option(p.sock_v6, IPPROTO_IPV6, IPV6_MULTICAST_HOPS), 255);
  EXPECT_EQ(int_option(p.sock_v6, IPPROTO_IPV6, IPV6_V6ONLY), 1);

  // Loopback is used only when nothing else is; it has no IPv6 multicast route.
  ASSERT_NE(m.HostInterfaces, nullptr);
  EXPECT_STREQ(m.HostInterfaces->ifname, "lo");
  EXPECT_EQ(m.HostInterfaces->next, nullptr);
  EXPECT_FALSE(platform_interface_usable(&m, m.HostInterfaces->InterfaceID, mDNSAddrType_IPv6));

  // A flood waits for later passes instead of holding this one.
  send_to_group_on_loopback(100, 12);
  EXPECT_EQ(one_pass(m, 1000).packets_received, 64u);
  EXPECT_EQ(one_pass(m, 1000).packets_received, 100u);
  // A datagram larger than the buffer is dropped, not read in part.
  send_to_group_on_loopback(1, kReceiveBufferSize + 100);
  EXPECT_EQ(one_pass(m, 1000).packets_received, 101u);
  EXPECT_EQ(engine_counters(&m).packets_dropped, 101u);
}

// A datagram read on a one-shot socket comes with its TTL (hop limit), on
// which the on-link check of link-local sources rests.
void check_ttl_arrives(int family) {
  const bool v4 = family == mDNSAddrType_IPv4;
  int receiver = open_one_shot_socket(family);
  ASSERT_GE(receiver, 0);
  sockaddr_storage to{};
  socklen_t length = sizeof to;
  ASSERT_EQ(getsockname(receiver, reinterpret_cast<sockaddr*>(&to), &length), 0);
  if (v4) {
    reinterpret_cast<sockaddr_in*>(&to)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  } else {
    reinterpret_cast<sockaddr_in6*>(&to)->sin6_addr = in6addr_loopback;
  }
  const int sender = socket(v4 ? AF_INET : AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const int ttl = v4 ? 7 : 9;
  ASSERT_EQ(
      setsockopt(sender, v4 ? IPPROTO_IP : IPPROTO_IPV6, v4 ? IP_TTL : IPV6_UNICAST_HOPS, &ttl, sizeof ttl),
      0);
  const uint8_t message[12] = {};
  ASSERT_EQ(sendto(sender, message, sizeof message, 0, reinterpret_cast<const sockaddr*>(&to), length),
            static_cast<ssize_t>(sizeof message));
  Datagram datagram;
  uint8_t buffer[64];
  for (int tries = 0;
       tries < 100 && receive_datagram(receiver, buffer, sizeof buffer, datagram) != ReadStatus::kGot;
       ++tries) {
    usleep(10000);
  }
  EXPECT_EQ(datagram.length, sizeof message);
  EXPECT_EQ(datagram.ttl, ttl);
  EXPECT_EQ(datagram.ifindex, if_nametoindex("lo"));
  close(sender);
  close_socket(receiver);
}

TEST(CoreSockets, OnLoopbackAlone) {
  SV_REQUIRE_VIRTUAL_LAN();
  // A thread of its own enters a fresh namespace; the core's sockets live there.
  std::string failure;
  std::thread worker([&] {
    if (unshare(CLONE_NEWNET) != 0 || std::system("ip link set lo up") != 0) {
      failure = "cannot make a namespace with loopback up";
      return;
    }
    auto m = std::make_unique<mDNS>();
    auto p = std::make_unique<mDNS_PlatformSupport>();
    std::vector<CacheEntity> cache(50);
    if (mDNS_Init(m.get(), p.get(), cache.data(), 50, mDNSfalse, nullptr, nullptr) != mStatus_NoError) {
      failure = "mDNS_Init failed";
      return;
    }
    check_on_loopback(*m);
    mDNS_FinalExit(m.get());
    check_ttl_arrives(mDNSAddrType_IPv4);
    check_ttl_arrives(mDNSAddrType_IPv6);
  });
  worker.join();
  ASSERT_TRUE(failure.empty()) << failure;
}

}  // namespace
}  // namespace mdns::vlan_test
