// Responses from senders outside the subnets of the arrival interface are not
// trusted; the same sender becomes acceptable once the interface has an address
// in its subnet and the interfaces are read again.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "core_on_lan.h"
#include "virtual_lan.h"
#include "virtual_lan_requirement.h"

namespace mdns::vlan_test {
namespace {

using sorvalen::test::VirtualLan;

// Sends COUNT copies of a response "_http._tcp.local PTR NAME._http._tcp.local"
// from SOURCE:5353 to the IPv4 group, 200 ms apart.
const char* const kResponder = R"(
import socket, struct, sys, time
name, source, count = sys.argv[1].encode(), sys.argv[2], int(sys.argv[3])
owner = b''.join(bytes([len(l)]) + l for l in (b'_http', b'_tcp', b'local')) + b'\0'
target = bytes([len(name)]) + name + b'\xc0\x0c'
message = (struct.pack('!6H', 0, 0x8400, 0, 1, 0, 0) + owner +
           struct.pack('!HHIH', 12, 1, 120, len(target)) + target)
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind((source, 5353))
s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(source))
s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 255)
for _ in range(count):
    s.sendto(message, ('224.0.0.251', 5353))
    time.sleep(0.2)
)";

constexpr int kFindMs = 15000;

TEST(OnLinkCheck, OffLinkSendersAreIgnoredUntilTheirSubnetIsOurs) {
  SV_REQUIRE_VIRTUAL_LAN();
  VirtualLan lan;
  lan.add_lan();
  lan.add_host("querier", {1});
  lan.add_host("device", {1});
  ASSERT_TRUE(lan.exec("device", {"ip", "addr", "add", "10.77.0.5/24", "dev", "eth0"}).ok());

  CoreOnLan core(lan.netns("querier"));
  ASSERT_TRUE(core.started());
  Browse browse;
  ASSERT_EQ(core.browse(browse, "_http._tcp"), mStatus_NoError);
  core.run_for(300);  // the browse's first query is out; answers are unsolicited anyway

  auto respond = [&](const std::string& name, const std::string& source) {
    const auto result = lan.exec("device", {"python3", "-c", kResponder, name, source, "3"});
    ASSERT_TRUE(result.ok()) << result.err;
  };
  respond("Far Device", "10.77.0.5");
  respond("Near Device", lan.host_ipv4("device"));
  ASSERT_TRUE(core.run_until([&] { return browse.adds_of("Near Device") > 0; }, kFindMs));
  core.run_for(1000);
  EXPECT_EQ(browse.adds_of("Far Device"), 0);

  ASSERT_TRUE(lan.exec("querier", {"ip", "addr", "add", "10.77.0.9/24", "dev", "eth0"}).ok());
  ASSERT_EQ(core.refresh_interfaces(), mStatus_NoError);
  respond("Far Device", "10.77.0.5");
  EXPECT_TRUE(core.run_until([&] { return browse.adds_of("Far Device") > 0; }, kFindMs));
  mDNS_StopQuery(&core.core(), &browse.question);
}

}  // namespace
}  // namespace mdns::vlan_test
