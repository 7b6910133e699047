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
  sorvalen::MDNSSearch search;  // the facade alone cuts the filter; no network
  search.Start("tv,,speaker", "_http._tcp", "local.", 1, "");
  const bool own =
      sorvalen::MDNSSearch::names_ == std::vector<std::string>{"tv", "", "speaker"} && ci_compare("TV", "tv");
  std::puts(own ? "the library calls its own split and ci_compare_pred"
                : "FAIL: the application's were called");
  return own ? 0 : 1;
}
