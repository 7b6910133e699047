// The checks of what an application asks the browser for, made on the
// caller's thread so that bad input fails at once with a message.
#pragma once

#include <string>

#include "browser/browse_watch.h"

namespace sorvalen::browser {

// Empty when `request` names a browse the core can make, else why not.
std::string browse_problem(const BrowseRequest& request, BrowseScope* scope);
std::string domain_problem(const std::string& domain, domainname* name);
std::string host_problem(const std::string& host, domainname* name);
std::string interface_problem(const std::string& interface_name);

}  // namespace sorvalen::browser
