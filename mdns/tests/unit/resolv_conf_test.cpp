// The name servers read from a resolver configuration file.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "engine/core_state.h"
#include "platform/resolv_conf.h"
#include "wire/constants.h"

namespace mdns {
namespace {

std::string text_of(const NameServer& server) {
  char buffer[64] = "";
  const bool v4 = server.address.type == mDNSAddrType_IPv4;
  inet_ntop(v4 ? AF_INET : AF_INET6, &server.address.ip, buffer, sizeof buffer);
  return buffer + (server.scope != 0 ? "%" + std::to_string(server.scope) : "");
}

TEST(ResolvConf, LongLinesAreIgnoredWholeAndAtMostCapacityServersAreRead) {
  char path[] = "/tmp/resolv_conf_test_XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  // A comment whose 512th byte starts what would read as a server line if the
  // line were cut where a buffer of 511 bytes ends; then a line of exactly 511.
  const std::string long_comment =
      "#" + std::string(510, 'x') + "nameserver 192.0.2.66 " + std::string(70, 'y');
  std::string longest = "nameserver 192.0.2.2";
  longest += std::string(kMaxResolvConfLine - longest.size(), ' ');
  std::ofstream(path) << long_comment << "\n"
                      << "nameserver 192.0.2.1\n"
                      << longest << "\n"
                      << "nameserver not-an-address\n"
                      << "  nameserver\tfe80::1%lo  # the loopback's index\n"
                      << "nameserver 192.0.2.4";  // the last line, without its newline
  NameServer servers[8];
  ASSERT_EQ(read_resolv_conf(path, servers, kMaxNameServers), 3);
  const std::string lo = std::to_string(if_nametoindex("lo"));
  EXPECT_EQ(text_of(servers[0]) + " " + text_of(servers[1]) + " " + text_of(servers[2]),
            "192.0.2.1 192.0.2.2 fe80::1%" + lo);
  EXPECT_EQ(servers[0].port, kDnsPort);
  ASSERT_EQ(read_resolv_conf(path, servers, 8), 4);
  EXPECT_EQ(text_of(servers[3]), "192.0.2.4");
  std::remove(path);
  EXPECT_EQ(read_resolv_conf(path, servers, 8), 0);
}

}  // namespace
}  // namespace mdns
