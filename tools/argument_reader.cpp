#include "argument_reader.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

ArgumentReader::ArgumentReader(const char* command, int argc, char** argv)
    : command_(command), argc_(argc), argv_(argv) {}

bool ArgumentReader::next() {
  if (index_ + 1 >= argc_)
    return false;
  current_ = argv_[++index_];
  return true;
}

bool ArgumentReader::take_value(std::string* value) {
  if (index_ + 1 >= argc_) {
    fail("option " + current_ + " needs a value");
    return false;
  }
  *value = argv_[++index_];
  return true;
}

int ArgumentReader::fail(const std::string& message) const {
  return usage_error(command_, message);
}

int usage_error(const char* command, const std::string& message) {
  std::fprintf(stderr, "sorvalen-mdns %s: %s; run 'sorvalen-mdns %s --help' for usage\n", command,
               message.c_str(), command);
  return 2;
}

bool parse_bounded_number(const std::string& text, int base, long max, long* value) {
  char* end = nullptr;
  errno = 0;
  const long parsed = std::strtol(text.c_str(), &end, base);
  if (errno != 0 || end == text.c_str() || *end != '\0' || parsed < 0 || parsed > max)
    return false;
  *value = parsed;
  return true;
}
