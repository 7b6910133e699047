// The test platform: interfaces from the test's snapshot, sends to its hook,
// unicast DNS sockets that are numbers holding what the test delivers on them.
#include "platform/test_platform.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "platform/interfaces_posix.h"
#include "platform/platform_state.h"
#include "wire/constants.h"

namespace mdns {

namespace {

// Numbers no real descriptor set holds.
constexpr int kTestSocketBase = 1 << 20;
// Twice the unicast queries the core keeps out at once (16): a number is not
// reused at once.
constexpr int kTestSockets = 32;

struct TestSocket {
  bool open;
  bool tcp;
  mDNSAddr server;
  uint16_t port;
  // What the test delivered and the core has not read yet (on the heap).
  uint8_t* held;
  size_t held_length;
  size_t held_read;
  mDNSAddr from;
  uint16_t from_port;
};

struct TestPlatform {
  const InterfaceSnapshot* interfaces;
  SendHook send_hook;
  void* send_context;
  NameServer name_servers[kMaxNameServers];
  int server_count;
  uint32_t next_socket;
  TestSocket sockets[kTestSockets];
};
static_assert(sizeof(TestPlatform) <= kPlatformOpsStorage, "test platform outgrew its storage");

TestPlatform& test_of(PlatformState& p) {
  return *reinterpret_cast<TestPlatform*>(p.ops_storage);
}

TestPlatform& test_of(mDNS* m) {
  return test_of(platform_of(m));
}

TestSocket* socket_of(mDNS* m, int fd) {
  const int n = fd - kTestSocketBase;
  return n >= 0 && n < kTestSockets ? &test_of(m).sockets[n] : nullptr;
}

void drop_held(TestSocket& s) {
  std::free(s.held);
  s.held = nullptr;
  s.held_length = 0;
  s.held_read = 0;
}

void hand_to_hook(mDNS* m, SentMessage& sent, const uint8_t* data, size_t length) {
  const TestPlatform& t = test_of(m);
  if (t.send_hook != nullptr) {
    sent.data = data;
    sent.length = length;
    t.send_hook(t.send_context, sent);
  }
}

bool open_nothing(mDNS*) {
  return true;
}

void close_sockets(mDNS* m) {
  for (TestSocket& s : test_of(m).sockets) {
    drop_held(s);
    s.open = false;
  }
}

bool read_interfaces(mDNS* m, InterfaceSnapshot& snapshot) {
  const TestPlatform& t = test_of(m);
  snapshot = t.interfaces != nullptr ? *t.interfaces : InterfaceSnapshot{};
  return true;
}

bool join(mDNS*, uint32_t, int) {
  return true;
}

void leave(mDNS*, uint32_t, int) {}

bool send_multicast(mDNS* m, Transport transport, const InterfaceRecord& interface, int family,
                    const uint8_t* message, size_t length) {
  SentMessage sent{};
  sent.transport = transport;
  sent.interface_id = interface.info.InterfaceID;
  sent.family = family;
  sent.port = kMdnsPort;
  hand_to_hook(m, sent, message, length);
  return true;
}

bool send_to_host(mDNS* m, const InterfaceRecord& interface, const mDNSAddr& to, const uint8_t* message,
                  size_t length) {
  SentMessage sent{};
  sent.transport = Transport::kOneShot;
  sent.interface_id = interface.info.InterfaceID;
  sent.family = to.type;
  sent.destination = to;
  sent.port = kMdnsPort;
  hand_to_hook(m, sent, message, length);
  return true;
}

int open_dns(mDNS* m, const NameServer& server, bool tcp) {
  TestPlatform& t = test_of(m);
  for (int tries = 0; tries < kTestSockets; ++tries) {
    const int n = static_cast<int>(t.next_socket++ % kTestSockets);
    TestSocket& s = t.sockets[n];
    if (!s.open) {
      s = TestSocket{};
      s.open = true;
      s.tcp = tcp;
      s.server = server.address;
      s.port = server.port;
      return kTestSocketBase + n;
    }
  }
  return -1;
}

void close_dns(mDNS* m, int fd) {
  if (TestSocket* s = socket_of(m, fd)) {
    drop_held(*s);
    s->open = false;
  }
}

long dns_send(mDNS* m, int fd, const uint8_t* data, size_t length) {
  const TestSocket* s = socket_of(m, fd);
  if (s == nullptr || !s->open) {
    return -1;
  }
  SentMessage sent{};
  sent.transport = s->tcp ? Transport::kUnicastTcp : Transport::kUnicastDns;
  sent.destination = s->server;
  sent.port = s->port;
  sent.socket = fd;
  hand_to_hook(m, sent, data, length);
  return static_cast<long>(length);
}

bool dns_readable(mDNS* m, int fd, const fd_set*) {
  const TestSocket* s = socket_of(m, fd);
  return s != nullptr && s->open && s->held_read < s->held_length;
}

// A datagram is read whole or cut to the buffer; a stream as far as the buffer goes.
DnsReceived dns_receive(mDNS* m, int fd, uint8_t* buffer, size_t capacity) {
  DnsReceived out{};
  TestSocket* s = socket_of(m, fd);
  if (s == nullptr || !s->open) {
    out.length = -1;
    return out;
  }
  if (!dns_readable(m, fd, nullptr)) {
    return out;
  }
  const size_t waiting = s->held_length - s->held_read;
  const size_t n = std::min(waiting, capacity);
  std::memcpy(buffer, s->held + s->held_read, n);
  out.length = static_cast<long>(n);
  s->held_read += n;
  if (!s->tcp) {
    out.source = s->from;
    out.port = s->from_port;
    out.truncated = n < waiting;
    s->held_read = s->held_length;
  }
  if (s->held_read == s->held_length) {
    drop_held(*s);
  }
  return out;
}

int dns_connected(mDNS*, int) {
  return 1;
}

int read_name_servers(mDNS* m, NameServer* servers, int capacity) {
  const TestPlatform& t = test_of(m);
  const int n = std::min(t.server_count, capacity);
  std::copy(t.name_servers, t.name_servers + n, servers);
  return n;
}

const PlatformOps kTestPlatformOps = {
    open_nothing,   close_sockets, read_interfaces,   join,        leave,
    send_multicast, open_dns,      close_dns,         dns_send,    dns_receive,
    dns_readable,   dns_connected, read_name_servers, send_to_host};

}  // namespace

void platform_use_test_mode(mDNS_PlatformSupport* p, const InterfaceSnapshot* interfaces) {
  PlatformState& state = platform_of(p);
  state.ops = &kTestPlatformOps;
  test_of(state).interfaces = interfaces;
}

void platform_set_send_hook(mDNS_PlatformSupport* p, SendHook hook, void* context) {
  TestPlatform& t = test_of(platform_of(p));
  t.send_hook = hook;
  t.send_context = context;
}

void platform_test_set_name_servers(mDNS_PlatformSupport* p, const mDNSAddr* servers, const uint16_t* ports,
                                    int count) {
  TestPlatform& t = test_of(platform_of(p));
  t.server_count = std::min(count, kMaxNameServers);
  for (int i = 0; i < t.server_count; ++i) {
    t.name_servers[i] = NameServer{servers[i], ports[i], 0};
  }
}

bool platform_test_socket(mDNS* m, int socket, mDNSAddr& server, uint16_t& port, bool& tcp) {
  const TestSocket* s = platform_of(m).ops == &kTestPlatformOps ? socket_of(m, socket) : nullptr;
  if (s == nullptr) {
    return false;
  }
  server = s->server;
  port = s->port;
  tcp = s->tcp;
  return true;
}

bool platform_test_deliver_dns(mDNS* m, int socket, const mDNSAddr& source, uint16_t port,
                               const uint8_t* message, size_t length) {
  TestSocket* s = platform_of(m).ops == &kTestPlatformOps ? socket_of(m, socket) : nullptr;
  if (s == nullptr || !s->open) {
    return false;
  }
  drop_held(*s);
  const size_t prefix = s->tcp ? 2 : 0;
  s->held = static_cast<uint8_t*>(std::malloc(prefix + length + 1));
  if (s->held == nullptr) {
    return false;
  }
  if (s->tcp) {
    s->held[0] = static_cast<uint8_t>(length >> 8);
    s->held[1] = static_cast<uint8_t>(length);
  }
  std::memcpy(s->held + prefix, message, length);
  s->held_length = prefix + length;
  s->from = source;
  s->from_port = port;
  return true;
}

}  // namespace mdns
