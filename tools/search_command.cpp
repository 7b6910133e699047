// The 'search' command.
#include <cstdio>

#include "commands.h"

void print_search_help() { std::printf("usage: sorvalen-mdns search TYPE [options]\n"); }

int run_search_command(int /*argc*/, char** /*argv*/) {
  std::fprintf(stderr, "sorvalen-mdns: search is not available yet\n");
  return 2;
}
