#include "command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace sorvalen::test {
namespace {

struct Pipe {
  int fds[2] = {-1, -1};
  Pipe() {
    if (pipe2(fds, O_CLOEXEC) != 0)
      throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
  }
  ~Pipe() {
    for (int fd : fds) {
      if (fd >= 0)
        ::close(fd);
    }
  }
  void close_write() {
    ::close(fds[1]);
    fds[1] = -1;
  }
};

pid_t spawn(const std::vector<std::string>& argv, const Pipe& out, const Pipe& err) {
  std::vector<char*> args;
  for (const std::string& a : argv)
    args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out.fds[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err.fds[1], 2);
  pid_t pid = -1;
  const int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0)
    throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(rc));
  return pid;
}

// Reads both pipes until they close or the deadline passes; false on timeout.
bool drain(const Pipe& out, const Pipe& err, CommandResult& result,
           std::chrono::steady_clock::time_point deadline) {
  pollfd fds[2] = {{out.fds[0], POLLIN, 0}, {err.fds[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  for (int open_count = 2; open_count > 0;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0)
      return false;
    const int ready = poll(fds, 2, static_cast<int>(left.count()));
    if (ready < 0 && errno != EINTR)
      return false;
    for (int i = 0; i < 2 && ready > 0; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0)
        continue;
      char buffer[4096];
      const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        fds[i].fd = -1;
        --open_count;
      }
    }
  }
  return true;
}

}  // namespace

CommandResult run_command(const std::vector<std::string>& argv, int timeout_seconds) {
  if (argv.empty())
    throw std::invalid_argument("run_command needs a program");
  Pipe out;
  Pipe err;
  const pid_t pid = spawn(argv, out, err);
  out.close_write();
  err.close_write();

  CommandResult result;
  if (!drain(out, err, result, std::chrono::steady_clock::now() + std::chrono::seconds(timeout_seconds))) {
    kill(pid, SIGKILL);
    result.err += "\n(killed after " + std::to_string(timeout_seconds) + " s)";
  }
  int status = 0;
  pid_t waited = -1;
  do {
    waited = waitpid(pid, &status, 0);
  } while (waited < 0 && errno == EINTR);
  result.exit_status = waited == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

}  // namespace sorvalen::test
