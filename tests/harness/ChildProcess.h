#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace quellix::testing {

// A program the tests start, with pipes to its standard input and output when asked for.
// Killed (SIGKILL) and reaped when destroyed.
class ChildProcess {
 public:
  struct Options {
    bool pipeStdin = false;
    bool pipeStdout = false;
    std::string outputFile;  // standard output and error go here when not piped
    std::string errorFile;   // standard error goes here, also with standard output piped
  };

  ChildProcess(const std::vector<std::string>& arguments, Options options);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  bool isRunning();
  void send(const std::string& line);
  // One line of standard output, or none when the program closed it or `timeout` passed.
  std::optional<std::string> readLine(std::chrono::milliseconds timeout);
  void signal(int number);
  // Waits for the exit; the status, or none on time-out.
  std::optional<int> wait(std::chrono::milliseconds timeout);

 private:
  pid_t pid_ = -1;
  int stdin_ = -1;
  int stdout_ = -1;
  std::string buffered_;
  std::optional<int> exitStatus_;
};

// Runs a program to its end and returns its standard output; throws on a non-zero exit.
std::string runProgram(const std::vector<std::string>& arguments);

}  // namespace quellix::testing
