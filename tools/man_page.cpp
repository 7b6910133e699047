// Writes the manual page sorvalen-mdns(1) to stdout; run by the build.
#include <cstdio>

#include "help_text.h"

int main() {
  return std::fputs(manual_page().c_str(), stdout) < 0 ? 1 : 0;
}
