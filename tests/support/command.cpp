#include "command.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace sorvalen::test {
namespace {

std::string read_back(int fd) {
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = pread(fd, buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0;)
    text.append(buffer, static_cast<size_t>(n));
  ::close(fd);
  return text;
}

}  // namespace

CommandResult run_command(const std::vector<std::string>& argv, int timeout_seconds) {
  // The output goes to anonymous files, so that a daemon the child leaves
  // behind holds no pipe open.
  const int out = memfd_create("out", MFD_CLOEXEC), err = memfd_create("err", MFD_CLOEXEC);
  std::vector<char*> args;
  for (const std::string& a : argv)
    args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out, 1);
  posix_spawn_file_actions_adddup2(&actions, err, 2);
  pid_t pid = -1;
  const int rc = posix_spawnp(&pid, args.at(0), &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0)
    throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(rc));

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_seconds);
  int status = 0;
  pid_t waited = 0;
  while ((waited = waitpid(pid, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  if (waited == 0) {
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
  }
  CommandResult result;
  result.exit_status = waited == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.out = read_back(out);
  result.err =
      read_back(err) + (waited == 0 ? "\n(killed after " + std::to_string(timeout_seconds) + " s)" : "");
  return result;
}

}  // namespace sorvalen::test
