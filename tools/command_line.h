// Reads a command's arguments with getopt_long and reports bad input the same
// way for every command.
#pragma once

#include <getopt.h>

#include <functional>
#include <string>
#include <vector>

// Reads argv[1..argc) of `command` (argv[0] is the command's name): short
// options (clustered too), long options (also as --name=value, or a unique
// prefix), positional words anywhere among them, and `--`, after which every
// word is positional.  `handle` gets each option's `val` and value (nullptr
// when it takes none) and returns 0 to go on or an exit status to stop with.
// Returns 0 with the positional words, else the exit status (2 after a
// one-line message for an unknown option or a missing value).
int read_command_line(const char* command, int argc, char** argv, const char* short_options,
                      const option* long_options, const std::function<int(int, const char*)>& handle,
                      std::vector<std::string>* positional);

// Prints "sorvalen-mdns COMMAND: MESSAGE" and where the usage is; returns 2.
int usage_error(const char* command, const std::string& message);

// A whole decimal (or, with base 0, also 0x-hexadecimal) number from 0 to max.
bool parse_bounded_number(const std::string& text, int base, long max, long* value);
