// The sockets the core opens, checked from the kernel's side, in fresh
// namespaces with nothing but loopback.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "engine.h"
#include "mdns/mdns.h"
#include "platform_state.h"
#include "virtual_lan_requirement.h"

namespace mdns::vlan_test {
namespace {

int int_option(int fd, int level, int name) {
  int value = -1;
  socklen_t length = sizeof value;
  EXPECT_EQ(getsockopt(fd, level, name, &value, &length), 0) << std::strerror(errno);
  return value;
}

bool bring_loopback_up() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return false;
  }
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
  bool ok = ioctl(fd, SIOCGIFFLAGS, &request) == 0;
  request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
  ok = ok && ioctl(fd, SIOCSIFFLAGS, &request) == 0;
  close(fd);
  return ok;
}

// The core started on a thread of its own, which alone enters a fresh
// namespace with nothing but loopback; the namespace goes with the thread's
// sockets.  `body` runs on that thread; gtest assertions work there.
void on_loopback_only(const std::function<void(mDNS&)>& body) {
  std::string failure;
  std::thread worker([&] {
    if (unshare(CLONE_NEWNET) != 0) {
      failure = std::string("unshare: ") + std::strerror(errno);
      return;
    }
    if (!bring_loopback_up()) {
      failure = "cannot bring lo up";
      return;
    }
    auto m = std::make_unique<mDNS>();
    auto p = std::make_unique<mDNS_PlatformSupport>();
    std::vector<CacheEntity> cache(50);
    if (mDNS_Init(m.get(), p.get(), cache.data(), 50, mDNSfalse, nullptr, nullptr) != mStatus_NoError) {
      failure = "mDNS_Init failed";
      return;
    }
    body(*m);
    mDNS_FinalExit(m.get());
  });
  worker.join();
  ASSERT_TRUE(failure.empty()) << failure;
}

// One pass of an application's loop, waiting at most `wait_ms`.
void one_pass(mDNS& m, int wait_ms) {
  fd_set readfds;
  FD_ZERO(&readfds);
  int nfds = 0;
  timeval timeout{0, static_cast<suseconds_t>(wait_ms * 1000)};
  mDNSPosixGetFDSet(&m, &nfds, &readfds, &timeout);
  if (select(nfds, &readfds, nullptr, nullptr, &timeout) < 0) {
    FD_ZERO(&readfds);
  }
  mDNSPosixProcessFDSet(&m, &readfds);
}

TEST(CoreSockets, AreNonBlockingAndSendWithTtl255) {
  SV_REQUIRE_VIRTUAL_LAN();
  on_loopback_only([](mDNS& m) {
    const int v4 = platform_of(&m).sock_v4;
    const int v6 = platform_of(&m).sock_v6;
    ASSERT_GE(v4, 0);
    ASSERT_GE(v6, 0);
    EXPECT_NE(fcntl(v4, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(v6, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(int_option(v4, IPPROTO_IP, IP_MULTICAST_TTL), 255);
    EXPECT_EQ(int_option(v4, IPPROTO_IP, IP_TTL), 255);
    EXPECT_EQ(int_option(v6, IPPROTO_IPV6, IPV6_MULTICAST_HOPS), 255);
    EXPECT_EQ(int_option(v6, IPPROTO_IPV6, IPV6_UNICAST_HOPS), 255);
    EXPECT_EQ(int_option(v6, IPPROTO_IPV6, IPV6_V6ONLY), 1);
  });
}

// Sends `count` datagrams of `size` bytes to the IPv4 group over loopback.
void send_to_group_on_loopback(int count, size_t size) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(fd, 0);
  ip_mreqn out_if{};
  out_if.imr_ifindex = static_cast<int>(if_nametoindex("lo"));
  ASSERT_EQ(setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &out_if, sizeof out_if), 0);
  sockaddr_in group{};
  group.sin_family = AF_INET;
  group.sin_port = htons(5353);
  group.sin_addr.s_addr = htonl(0xE00000FB);  // 224.0.0.251
  const std::vector<uint8_t> message(size, 0);
  for (int i = 0; i < count; ++i) {
    ASSERT_EQ(sendto(fd, message.data(), message.size(), 0, reinterpret_cast<const sockaddr*>(&group),
                     sizeof group),
              static_cast<ssize_t>(message.size()));
  }
  close(fd);
}

TEST(CoreSockets, APassReadsABoundedNumberOfDatagrams) {
  SV_REQUIRE_VIRTUAL_LAN();
  on_loopback_only([](mDNS& m) {
    send_to_group_on_loopback(100, 12);
    one_pass(m, 1000);
    // A flood waits for later passes instead of holding this one.
    EXPECT_EQ(engine_counters(&m).packets_received, 64u);
    one_pass(m, 1000);
    EXPECT_EQ(engine_counters(&m).packets_received, 100u);
  });
}

TEST(CoreSockets, FallBackToLoopbackWhenItIsAllThereIsAndDropOversizeDatagrams) {
  SV_REQUIRE_VIRTUAL_LAN();
  on_loopback_only([](mDNS& m) {
    ASSERT_NE(m.HostInterfaces, nullptr);
    EXPECT_STREQ(m.HostInterfaces->ifname, "lo");
    EXPECT_EQ(m.HostInterfaces->next, nullptr);
    // Our own query comes back over loopback and is counted (and then dropped).
    const uint8_t query[12] = {0x12, 0x34};
    const mDNSInterfaceID lo = m.HostInterfaces->InterfaceID;
    EXPECT_TRUE(
        platform_send_multicast(&m, Transport::kMulticast, lo, mDNSAddrType_IPv4, query, sizeof query));
    // Without the multicast flag, loopback has no IPv6 multicast route.
    EXPECT_FALSE(
        platform_send_multicast(&m, Transport::kMulticast, lo, mDNSAddrType_IPv6, query, sizeof query));
    send_to_group_on_loopback(1, kReceiveBufferSize + 100);
    for (int pass = 0; pass < 20 && engine_counters(&m).packets_received < 2; ++pass) {
      one_pass(m, 100);
    }

    EXPECT_EQ(engine_counters(&m).packets_received, 2u);
    EXPECT_EQ(engine_counters(&m).packets_dropped, 2u)
        << "our own query, and the datagram larger than the buffer";
    EXPECT_EQ(engine_counters(&m).packets_accepted, 0u);
  });
}

}  // namespace
}  // namespace mdns::vlan_test
