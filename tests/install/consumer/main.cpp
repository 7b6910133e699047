// Built against an installed copy of the library: proves the installed headers,
// package files and exports are enough for an application.
#include <sorvalen/mdns_search.h>
#include <sorvalen/text_helpers.h>

#include <cstdio>
#include <mutex>

int main() {
  if (split("tv,,speaker", ',').size() != 3 || !ci_compare("TV", "tv"))
    return 1;
  sorvalen::MDNSSearch search;  // the facade alone: no engine, no network
  if (!search.Start("tv", "_http._tcp", "local.", 1, ""))
    return 2;
  sorvalen::MDNSSearch::AddToAddressList({0, 0, "Living Room TV", "", ""});
  {
    std::lock_guard<std::mutex> lock(sorvalen::MDNSSearch::address_list_mutex_);
    if (search.GetAddressList().size() != 1)
      return 3;
  }
  search.Stop();
  std::puts("consumer OK");
  return 0;
}
