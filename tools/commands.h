// The tool's commands.  Each takes the arguments after the tool's name (its
// own name first) and returns the process exit status.
#pragma once

int run_search_command(int argc, char** argv);
int run_lookup_command(int argc, char** argv);
int run_types_command(int argc, char** argv);
int run_resolve_command(int argc, char** argv);
