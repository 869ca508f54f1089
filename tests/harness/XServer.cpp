#include "harness/XServer.h"

#include <stdlib.h>

#include <map>
#include <sstream>
#include <stdexcept>

namespace quellix::testing {
namespace {

constexpr auto kStartTimeout = std::chrono::seconds(15);

std::optional<std::string> tryProgram(const std::vector<std::string>& arguments) {
  try {
    return runProgram(arguments);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace

XServer::XServer() {
  // Xvfb picks a free display itself and writes its number to the descriptor named.
  const std::string screen = std::to_string(kWidth) + "x" + std::to_string(kHeight) + "x24";
  process_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"Xvfb", "-displayfd", "1", "-screen", "0", screen, "-nolisten",
                               "tcp", "-noreset"},
      ChildProcess::Options{.pipeStdout = true});
  const auto number = process_->readLine(kStartTimeout);
  if (!number || number->empty()) {
    throw std::runtime_error("Xvfb did not start");
  }
  display_ = ":" + *number;
  ::setenv("DISPLAY", display_.c_str(), 1);
  ::unsetenv("WAYLAND_DISPLAY");
  ::setenv("XDG_SESSION_TYPE", "x11", 1);
}

XServer::~XServer() = default;

std::optional<XServer::Geometry> XServer::visibleWindow(const std::string& title) const {
  const auto shell = tryProgram({"xdotool", "search", "--onlyvisible", "--limit", "1", "--name",
                                 "^" + title + "$", "getwindowgeometry", "--shell"});
  if (!shell) {
    return std::nullopt;
  }
  std::map<std::string, int> values;
  std::istringstream lines(*shell);
  for (std::string line; std::getline(lines, line);) {
    if (const auto equals = line.find('='); equals != std::string::npos) {
      values[line.substr(0, equals)] = std::atoi(line.c_str() + equals + 1);
    }
  }
  if (!values.contains("WINDOW")) {
    return std::nullopt;
  }
  return Geometry{values["X"], values["Y"], values["WIDTH"], values["HEIGHT"]};
}

std::optional<std::string> XServer::activeWindow() const {
  auto title = tryProgram({"xdotool", "getactivewindow", "getwindowname"});
  if (title && !title->empty() && title->back() == '\n') {
    title->pop_back();
  }
  return title;
}

void XServer::click(int x, int y) const {
  // The server takes the motion and the button in the order sent; waiting for the motion
  // (--sync) would wait forever when the pointer is already there.
  // A user's pointer arrives from somewhere: widgets see it enter before the press.
  runProgram({"xdotool", "mousemove", std::to_string(x + 1), std::to_string(y + 1), "mousemove",
              std::to_string(x), std::to_string(y), "click", "1"});
}

void XServer::key(const std::string& keys) const {
  runProgram({"xdotool", "key", keys});
}

}  // namespace quellix::testing
