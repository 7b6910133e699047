// sorvalen-mdns: finds devices on the local network.
#include <cstdio>
#include <cstring>
#include <string>

#include "command_line.h"
#include "commands.h"
#include "help_text.h"

namespace {

bool is_help(const char* word) {
  return std::strcmp(word, "--help") == 0 || std::strcmp(word, "-h") == 0 || std::strcmp(word, "help") == 0;
}

// 'help' alone, or 'help COMMAND'.
int run_help(int argc, char** argv) {
  if (argc < 3) {
    print_overview(stdout);
    return 0;
  }
  const CommandHelp* help = find_command_help(argv[2]);
  if (help == nullptr || argc > 3) {
    std::fprintf(stderr,
                 "sorvalen-mdns help: no command '%s'; the commands are search, types, resolve and lookup\n",
                 argv[2]);
    return 2;
  }
  print_command_help(stdout, *help);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    print_overview(stderr);
    return 2;
  }
  const char* command = argv[1];
  if (is_help(command))
    return run_help(argc, argv);
  if (std::strcmp(command, "--version") == 0 || std::strcmp(command, "-V") == 0) {
    print_version(stdout);
    return 0;
  }
  if (std::strcmp(command, "search") == 0)
    return run_search_command(argc - 1, argv + 1);
  if (std::strcmp(command, "lookup") == 0)
    return run_lookup_command(argc - 1, argv + 1);
  if (std::strcmp(command, "types") == 0)
    return run_types_command(argc - 1, argv + 1);
  if (std::strcmp(command, "resolve") == 0)
    return run_resolve_command(argc - 1, argv + 1);
  std::fprintf(stderr,
               "sorvalen-mdns: unknown command '%s'; the commands are search, types, resolve and lookup (see "
               "'sorvalen-mdns "
               "--help')\n",
               command);
  return 2;
}
