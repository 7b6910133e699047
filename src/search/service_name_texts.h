// The three texts of a full service name, as the device records hold them.
#pragma once

#include <string>

#include "mdns/mdns.h"

namespace sorvalen {

struct ServiceNameTexts {
  std::string instance;  // the instance label's bytes, no escapes, no trailing dot
  std::string type;      // "_app._tcp."
  std::string domain;    // "local."
};

// Splits <instance>.<_app>.<_tcp|_udp>.<domain> into its texts.  False (and
// `texts` untouched) when the core does not accept the name as a service name.
bool split_service_name(const domainname& full_name, ServiceNameTexts* texts);

}  // namespace sorvalen
