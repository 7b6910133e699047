// sorvalen-mdns: finds devices on the local network.
#include <cstdio>
#include <cstring>

#include "commands.h"

namespace {

void print_usage(FILE* out) {
  std::fprintf(out,
               "usage: sorvalen-mdns <command> [options]\n"
               "\n"
               "commands:\n"
               "  search   browse the local link for a service type and print the devices found\n"
               "  lookup   ask one device, by unicast to its port 5353, for the PTR records of a name\n"
               "\n"
               "Run 'sorvalen-mdns <command> --help' for the options of a command.\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    print_usage(stderr);
    return 2;
  }
  const char* command = argv[1];
  if (std::strcmp(command, "--help") == 0 || std::strcmp(command, "-h") == 0 ||
      std::strcmp(command, "help") == 0) {
    print_usage(stdout);
    return 0;
  }
  if (std::strcmp(command, "search") == 0)
    return run_search_command(argc - 1, argv + 1);
  if (std::strcmp(command, "lookup") == 0)
    return run_lookup_command(argc - 1, argv + 1);
  std::fprintf(stderr, "sorvalen-mdns: unknown command '%s'; run 'sorvalen-mdns --help' for the list\n",
               command);
  return 2;
}
