// Built against an installed copy of the library: proves the installed headers,
// package files and exports are enough for an application.
#include <sorvalen/mdns_search.h>
#include <sorvalen/text_helpers.h>

#include <cstdio>
#include <mutex>

namespace {

// The factory's engine is not needed to exercise the installed facade.
class LocalSearch : public sorvalen::MDNSSearch {};

}  // namespace

int main() {
  if (split("tv,,speaker", ',').size() != 3 || !ci_compare("TV", "tv"))
    return 1;
  LocalSearch search;
  if (!search.Start("tv", "_http._tcp", "local.", 1, ""))
    return 2;
  sorvalen::IPAddressV4 device{};
  device.name = "Living Room TV";
  sorvalen::MDNSSearch::AddToAddressList(device);
  {
    std::lock_guard<std::mutex> lock(sorvalen::MDNSSearch::address_list_mutex_);
    if (search.GetAddressList().size() != 1)
      return 3;
  }
  search.Stop();
  std::puts("consumer OK");
  return 0;
}
