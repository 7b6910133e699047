// The tool's commands.  Each takes the arguments after its own name and
// returns the process exit status: 0 success, 1 nothing found / no usable
// answer, 2 bad input.
#pragma once

int run_search_command(int argc, char** argv);
int run_lookup_command(int argc, char** argv);
void print_search_help();
void print_lookup_help();
