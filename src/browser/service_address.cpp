#include "browser/service_address.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <algorithm>
#include <cstring>
#include <tuple>

namespace sorvalen::browser {

namespace {

bool is_link_local_v6(const uint8_t* bytes) {
  return bytes[0] == 0xfe && (bytes[1] & 0xc0) == 0x80;
}

bool address_before(const ServiceAddress& a, const ServiceAddress& b) {
  const int order = std::memcmp(a.bytes, b.bytes, sizeof a.bytes);
  return std::make_tuple(a.ipv6, order, a.interface_index) < std::make_tuple(b.ipv6, 0, b.interface_index);
}

}  // namespace

ServiceAddress address_of(const ResourceRecord& answer, const std::string& interface_name) {
  ServiceAddress address;
  address.ipv6 = answer.rrtype == kDNSType_AAAA;
  std::memcpy(address.bytes, address.ipv6 ? answer.rdata->u.ipv6.b : answer.rdata->u.ipv4.b,
              address.ipv6 ? 16 : 4);
  char text[INET6_ADDRSTRLEN] = {};
  inet_ntop(address.ipv6 ? AF_INET6 : AF_INET, address.bytes, text, sizeof text);
  address.text = text;
  address.interface_name = interface_name;
  if (!interface_name.empty())
    address.interface_index = if_nametoindex(interface_name.c_str());
  if (address.ipv6 && is_link_local_v6(address.bytes) && !interface_name.empty())
    address.text += "%" + interface_name;
  return address;
}

bool same_address(const ServiceAddress& a, const ServiceAddress& b) {
  return a.ipv6 == b.ipv6 && std::memcmp(a.bytes, b.bytes, sizeof a.bytes) == 0 &&
         a.interface_name == b.interface_name;
}

bool same_addresses(const std::vector<ServiceAddress>& a, const std::vector<ServiceAddress>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), same_address);
}

bool update_addresses(std::vector<ServiceAddress>* list, const ServiceAddress& address, bool added) {
  const auto found = std::find_if(list->begin(), list->end(), [&](const ServiceAddress& listed) {
    return same_address(listed, address);
  });
  if (added == (found != list->end()))
    return false;
  if (!added) {
    list->erase(found);
    return true;
  }
  list->insert(std::upper_bound(list->begin(), list->end(), address, address_before), address);
  return true;
}

}  // namespace sorvalen::browser
