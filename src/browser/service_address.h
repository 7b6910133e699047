// Addresses of answers as the browser's interface shows them.
#pragma once

#include <string>
#include <vector>

#include "mdns/mdns.h"
#include "sorvalen/service_browser.h"

namespace sorvalen::browser {

// The address of an A or AAAA answer that arrived on `interface_name` ("" for
// unicast DNS); an IPv6 link-local address gets the interface as its zone.
ServiceAddress address_of(const ResourceRecord& answer, const std::string& interface_name);

bool same_address(const ServiceAddress& a, const ServiceAddress& b);
bool same_addresses(const std::vector<ServiceAddress>& a, const std::vector<ServiceAddress>& b);

// Adds (when new) or removes `address`; true when the list changed.  The list
// stays in a fixed order: IPv4 first, then by bytes and interface.
bool update_addresses(std::vector<ServiceAddress>* list, const ServiceAddress& address, bool added);

}  // namespace sorvalen::browser
