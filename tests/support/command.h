#pragma once

#include <string>
#include <vector>

namespace sorvalen::test {

struct CommandResult {
  int exit_status = -1;  // the exit code, or -1 when it died from a signal
  std::string out;
  std::string err;

  bool ok() const { return exit_status == 0; }
};

// Runs argv[0] (searched in PATH) and waits for it; a child still running
// after timeout_seconds is killed.  posix_spawn keeps this safe in processes
// that already run threads.
CommandResult run_command(const std::vector<std::string>& argv, int timeout_seconds = 120);

}  // namespace sorvalen::test
