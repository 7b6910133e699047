// The 'lookup' command.
#include <cstdio>

#include "commands.h"

void print_lookup_help() { std::printf("usage: sorvalen-mdns lookup ADDRESS NAME [options]\n"); }

int run_lookup_command(int /*argc*/, char** /*argv*/) {
  std::fprintf(stderr, "sorvalen-mdns: lookup is not available yet\n");
  return 2;
}
