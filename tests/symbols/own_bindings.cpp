// An application with functions of the same names as the library's helpers:
// the library's own calls must still reach the library's definitions.
#include <sorvalen/mdns_search.h>
#include <sorvalen/text_helpers.h>

#include <cstdio>

std::vector<std::string> split(const std::string&, char) {
  return {"the application's split"};
}

bool ci_compare_pred(unsigned char, unsigned char) {
  return false;
}

int main() {
  sorvalen::MDNSSearch search;  // the facade alone reads the filter; no network
  search.Start("tv,,speaker", "_http._tcp", "local.", 1, "");
  const bool filter_ok = sorvalen::MDNSSearch::names_ == std::vector<std::string>{"tv", "", "speaker"};
  const bool compare_ok = ci_compare("TV", "tv");
  search.Stop();
  if (!filter_ok)
    std::puts("FAIL: the search cut its filter with the application's split");
  if (!compare_ok)
    std::puts("FAIL: ci_compare called the application's ci_compare_pred");
  return filter_ok && compare_ok ? 0 : 1;
}
