// Reads one command's arguments: options (some with a value) and positional
// words, and reports bad input the same way for every command.
#pragma once

#include <string>
#include <vector>

class ArgumentReader {
 public:
  // `command` is the command's name, as the user typed it after the tool's.
  ArgumentReader(const char* command, int argc, char** argv);

  // Steps to the next argument; false after the last.
  bool next();
  const std::string& current() const { return current_; }
  bool is_help() const { return current_ == "--help" || current_ == "-h"; }
  bool is_option() const { return current_.size() > 1 && current_[0] == '-'; }

  // Takes the argument after the current option as its value; false (after
  // saying so) when there is none.
  bool take_value(std::string* value);

  // Prints a one-line message that points at --help; returns exit status 2.
  int fail(const std::string& message) const;

 private:
  const char* command_;
  int argc_;
  char** argv_;
  int index_ = 0;
  std::string current_;
};

// Prints a one-line message about bad input to `command` that points at its
// --help; returns exit status 2.
int usage_error(const char* command, const std::string& message);

// A whole decimal (or, with base 0, also 0x-hexadecimal) number from 0 to max.
bool parse_bounded_number(const std::string& text, int base, long max, long* value);
