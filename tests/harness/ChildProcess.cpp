#include "harness/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <thread>

extern char** environ;

namespace quellix::testing {

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, Options options) {
  int inPipe[2] = {-1, -1};
  int outPipe[2] = {-1, -1};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (options.pipeStdin) {
    ::pipe2(inPipe, O_CLOEXEC);
    posix_spawn_file_actions_adddup2(&actions, inPipe[0], STDIN_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  }
  if (options.pipeStdout) {
    ::pipe2(outPipe, O_CLOEXEC);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
  } else if (!options.outputFile.empty()) {
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, options.outputFile.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  }
  if (!options.errorFile.empty()) {
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, options.errorFile.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
  }
  std::vector<char*> argv;
  for (const auto& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  const int error = posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (options.pipeStdin) {
    ::close(inPipe[0]);
    stdin_ = inPipe[1];
  }
  if (options.pipeStdout) {
    ::close(outPipe[1]);
    stdout_ = outPipe[0];
  }
  if (error != 0) {
    pid_ = -1;
    throw std::runtime_error("cannot start " + arguments.front());
  }
}

ChildProcess::~ChildProcess() {
  if (isRunning()) {
    signal(SIGKILL);
    wait(std::chrono::seconds(5));
  }
  if (stdin_ >= 0)
    ::close(stdin_);
  if (stdout_ >= 0)
    ::close(stdout_);
}

bool ChildProcess::isRunning() {
  if (pid_ < 0 || exitStatus_) {
    return false;
  }
  int status = 0;
  if (::waitpid(pid_, &status, WNOHANG) == pid_) {
    exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return false;
  }
  return true;
}

void ChildProcess::send(const std::string& line) {
  const std::string text = line + "\n";
  if (::write(stdin_, text.data(), text.size()) < 0) {
    throw std::runtime_error("cannot write to the child");
  }
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (const auto end = buffered_.find('\n'); end != std::string::npos) {
      std::string line = buffered_.substr(0, end);
      buffered_.erase(0, end + 1);
      return line;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      return std::nullopt;
    }
    pollfd descriptor{stdout_, POLLIN, 0};
    if (::poll(&descriptor, 1, static_cast<int>(left.count())) <= 0) {
      continue;
    }
    char chunk[256];
    const ssize_t count = ::read(stdout_, chunk, sizeof chunk);
    if (count <= 0) {
      return std::nullopt;
    }
    buffered_.append(chunk, static_cast<std::size_t>(count));
  }
}

void ChildProcess::signal(int number) {
  if (pid_ > 0 && !exitStatus_) {
    ::kill(pid_, number);
  }
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (isRunning()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return std::nullopt;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return exitStatus_;
}

std::string runProgram(const std::vector<std::string>& arguments) {
  ChildProcess child(arguments, {.pipeStdout = true});
  std::string output;
  while (auto line = child.readLine(std::chrono::seconds(20))) {
    output += *line + "\n";
  }
  const auto status = child.wait(std::chrono::seconds(20));
  if (status != 0) {
    throw std::runtime_error(arguments.front() + " " + (arguments.size() > 1 ? arguments[1] : "") +
                             " failed with status " + std::to_string(status.value_or(-1)));
  }
  return output;
}

}  // namespace quellix::testing
