// The sockets the core opens, checked from the kernel's side, and the
// loopback-only case, in namespaces that the tests create.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core_on_lan.h"
#include "platform.h"
#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace mdns::vlan_test {
namespace {

using sorvalen::test::VirtualLan;

int int_option(int fd, int level, int name) {
  int value = -1;
  socklen_t length = sizeof value;
  EXPECT_EQ(getsockopt(fd, level, name, &value, &length), 0) << std::strerror(errno);
  return value;
}

int bound_port(int fd) {
  sockaddr_storage local{};
  socklen_t length = sizeof local;
  EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length), 0);
  const uint16_t port = local.ss_family == AF_INET ? reinterpret_cast<sockaddr_in*>(&local)->sin_port
                                                   : reinterpret_cast<sockaddr_in6*>(&local)->sin6_port;
  return ntohs(port);
}

TEST(CoreSockets, AreSharedNonBlockingAndSendWithTtl255) {
  SV_REQUIRE_VIRTUAL_LAN();
  VirtualLan lan;
  lan.add_lan();
  lan.add_host("querier", {1});
  CoreOnLan core(lan.netns("querier"));
  ASSERT_TRUE(core.started());
  const int v4 = core.platform().sock_v4;
  const int v6 = core.platform().sock_v6;
  ASSERT_GE(v4, 0);
  ASSERT_GE(v6, 0);
  for (int fd : {v4, v6}) {
    EXPECT_EQ(bound_port(fd), 5353);
    EXPECT_EQ(int_option(fd, SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(int_option(fd, SOL_SOCKET, SO_REUSEPORT), 1);
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  }
  EXPECT_EQ(int_option(v4, IPPROTO_IP, IP_MULTICAST_TTL), 255);
  EXPECT_EQ(int_option(v4, IPPROTO_IP, IP_TTL), 255);
  EXPECT_EQ(int_option(v6, IPPROTO_IPV6, IPV6_MULTICAST_HOPS), 255);
  EXPECT_EQ(int_option(v6, IPPROTO_IPV6, IPV6_UNICAST_HOPS), 255);
  EXPECT_EQ(int_option(v6, IPPROTO_IPV6, IPV6_V6ONLY), 1);

  fd_set readfds;
  FD_ZERO(&readfds);
  int nfds = 0;
  timeval timeout{10, 0};
  mDNSPosixGetFDSet(&core.core(), &nfds, &readfds, &timeout);
  EXPECT_TRUE(FD_ISSET(v4, &readfds));
  EXPECT_TRUE(FD_ISSET(v6, &readfds));
  EXPECT_EQ(nfds, std::max(v4, v6) + 1);
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

struct LoopbackRun {
  std::string failure;
  std::vector<std::string> interfaces;
  mDNSu32 sent = 0;
  mDNSu32 received = 0;
  bool sent_v4 = false;
  bool sent_v6 = false;
};

// Runs on its own thread, which alone enters a fresh namespace with nothing
// but loopback; the namespace goes when the thread's sockets close.
void run_core_on_loopback_only(LoopbackRun& run) {
  if (unshare(CLONE_NEWNET) != 0) {
    run.failure = std::string("unshare: ") + std::strerror(errno);
    return;
  }
  if (!bring_loopback_up()) {
    run.failure = "cannot bring lo up";
    return;
  }
  auto m = std::make_unique<mDNS>();
  auto p = std::make_unique<mDNS_PlatformSupport>();
  std::vector<CacheEntity> cache(50);
  if (mDNS_Init(m.get(), p.get(), cache.data(), 50, mDNSfalse, nullptr, nullptr) != mStatus_NoError) {
    run.failure = "mDNS_Init failed";
    return;
  }
  for (const NetworkInterfaceInfo* i = m->HostInterfaces; i != nullptr; i = i->next) {
    run.interfaces.emplace_back(i->ifname);
  }
  // Our own query comes back over loopback and is counted (and then dropped).
  const uint8_t query[12] = {0x12, 0x34};
  const mDNSInterfaceID lo = m->HostInterfaces != nullptr ? m->HostInterfaces->InterfaceID : nullptr;
  run.sent_v4 = platform_send(m.get(), lo, mDNSAddrType_IPv4, query, sizeof query);
  run.sent_v6 = platform_send(m.get(), lo, mDNSAddrType_IPv6, query, sizeof query);
  for (int pass = 0; pass < 20 && m->counters.packets_received < 1; ++pass) {
    fd_set readfds;
    FD_ZERO(&readfds);
    int nfds = 0;
    timeval timeout{0, 100000};
    mDNSPosixGetFDSet(m.get(), &nfds, &readfds, &timeout);
    if (select(nfds, &readfds, nullptr, nullptr, &timeout) < 0) {
      FD_ZERO(&readfds);
    }
    mDNSPosixProcessFDSet(m.get(), &readfds);
  }
  run.sent = m->counters.packets_sent;
  run.received = m->counters.packets_received;
  mDNS_FinalExit(m.get());
}

TEST(CoreSockets, FallBackToLoopbackWhenItIsAllThereIs) {
  SV_REQUIRE_VIRTUAL_LAN();
  LoopbackRun run;
  std::thread worker(run_core_on_loopback_only, std::ref(run));
  worker.join();
  ASSERT_TRUE(run.failure.empty()) << run.failure;
  EXPECT_EQ(run.interfaces, std::vector<std::string>{"lo"});
  EXPECT_TRUE(run.sent_v4);
  // Without the multicast flag, loopback has no IPv6 multicast route.
  EXPECT_FALSE(run.sent_v6);
  EXPECT_EQ(run.sent, 1u);
  EXPECT_EQ(run.received, 1u);
}

}  // namespace
}  // namespace mdns::vlan_test
