#include "harness/XServer.h"

#include <stdlib.h>

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
  const auto ids = tryProgram({"xdotool", "search", "--onlyvisible", "--name", "^" + title + "$"});
  if (!ids) {
    return std::nullopt;
  }
  std::istringstream idLines(*ids);
  std::string id;
  if (!std::getline(idLines, id) || id.empty()) {
    return std::nullopt;
  }
  const auto shell = tryProgram({"xdotool", "getwindowgeometry", "--shell", id});
  if (!shell) {
    return std::nullopt;
  }
  Geometry geometry;
  std::istringstream lines(*shell);
  for (std::string line; std::getline(lines, line);) {
    const auto equals = line.find('=');
    if (equals == std::string::npos) {
      continue;
    }
    const std::string name = line.substr(0, equals);
    const int value = std::atoi(line.c_str() + equals + 1);
    if (name == "X") {
      geometry.x = value;
    } else if (name == "Y") {
      geometry.y = value;
    } else if (name == "WIDTH") {
      geometry.width = value;
    } else if (name == "HEIGHT") {
      geometry.height = value;
    }
  }
  return geometry;
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
