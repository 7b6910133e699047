// The tool's help, kept once: --help prints it as text and the build renders
// the manual page from the same words, so the two cannot differ.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

struct HelpOption {
  const char* flags;  // "-t, --timeout S"
  const char* text;
};

struct HelpSection {
  const char* title;                    // "output"; empty for the opening paragraphs
  std::vector<const char*> paragraphs;  // each one paragraph of running text
  std::vector<HelpOption> options;      // shown after the paragraphs
};

struct CommandHelp {
  const char* name;      // "search"
  const char* synopsis;  // after "sorvalen-mdns "
  const char* summary;   // one line, for the command list
  std::vector<HelpSection> sections;
};

const std::vector<CommandHelp>& command_helps();
const CommandHelp* find_command_help(const std::string& name);

void print_overview(FILE* out);
void print_command_help(FILE* out, const CommandHelp& help);
void print_version(FILE* out);

// The manual page sorvalen-mdns(1), in roff.
std::string manual_page();
