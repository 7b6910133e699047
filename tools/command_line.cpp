#include "command_line.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// What getopt_long found wrong with the argument it was reading, which
// started at argv[at].
std::string describe_error(int result, int argc, char** argv, int at) {
  const std::string element = at < argc ? argv[at] : "";
  const bool long_option = element.compare(0, 2, "--") == 0;
  const std::string name =
      long_option ? element.substr(0, element.find('=')) : std::string("-") + char(optopt);
  if (result == ':')
    return "option '" + name + "' needs a value";
  if (long_option && optopt != 0)
    return "option '" + name + "' takes no value";
  return "unknown option '" + name + "'";
}

}  // namespace

int read_command_line(const char* command, int argc, char** argv, const char* short_options,
                      const option* long_options, const std::function<int(int, const char*)>& handle,
                      std::vector<std::string>* positional) {
  // '-': positional words come back in order as value 1, so options may follow
  // them whatever POSIXLY_CORRECT says; ':': a missing value is told apart.
  const std::string option_letters = std::string("-:") + short_options;
  opterr = 0;
  optind = 0;  // glibc: start afresh
  for (;;) {
    const int at = optind == 0 ? 1 : optind;
    const int result = getopt_long(argc, argv, option_letters.c_str(), long_options, nullptr);
    if (result == -1)
      break;
    if (result == 1) {
      positional->push_back(optarg);
      continue;
    }
    if (result == '?' || result == ':')
      return usage_error(command, describe_error(result, argc, argv, at));
    const int status = handle(result, optarg);
    if (status != 0)
      return status;
  }
  for (int i = optind; i < argc; ++i)
    positional->push_back(argv[i]);
  return 0;
}

int usage_error(const char* command, const std::string& message) {
  std::fprintf(stderr, "sorvalen-mdns %s: %s; see 'sorvalen-mdns help %s'\n", command, message.c_str(),
               command);
  return 2;
}

bool parse_bounded_number(const std::string& text, int base, long max, long* value) {
  char* end = nullptr;
  errno = 0;
  const long parsed = std::strtol(text.c_str(), &end, base);
  if (errno != 0 || end == text.c_str() || *end != '\0' || parsed < 0 || parsed > max || text[0] == '-')
    return false;
  *value = parsed;
  return true;
}
