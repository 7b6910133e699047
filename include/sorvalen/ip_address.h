// Device records: one reachable service endpoint each.
#pragma once

#include <cstdint>
#include <string>

namespace sorvalen {

// `address` stays in network byte order (first octet of the dotted form in the
// lowest-addressed byte); `port` is the numeric port in host order.
struct IPAddressV4 {
  uint32_t address = 0;
  uint16_t port = 0;
  std::string name;    // instance name: the first label, plain text, no trailing dot
  std::string type;    // service type, each label followed by a dot ("_http._tcp.")
  std::string domain;  // domain, each label followed by a dot ("local.")
};

// `address` holds the eight groups of the address as host-order numbers, group 0
// first (fe80::1 is {0xfe80, 0, 0, 0, 0, 0, 0, 1}); `port` is in host order.
struct IPAddressV6 {
  uint16_t address[8] = {};
  uint16_t port = 0;
  std::string name;
  std::string type;
  std::string domain;
};

}  // namespace sorvalen
