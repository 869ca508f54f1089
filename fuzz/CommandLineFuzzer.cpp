// An argument vector: the input split at NUL bytes, the program's path first.
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "app/QuellixMain.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quellix::QuellixMain;
  std::vector<std::string> arguments{"/usr/bin/quellix"};
  std::string current;
  for (std::size_t at = 0; at < size; ++at) {
    if (data[at] == 0) {
      arguments.push_back(std::move(current));
      current.clear();
    } else {
      current += static_cast<char>(data[at]);
    }
  }
  arguments.push_back(std::move(current));
  const Invocation invocation = dispatch(arguments);
  // A mode's argument is always the one right after its flag.
  if (invocation.mode == Mode::spike || invocation.mode == Mode::volset) {
    const char* flag = invocation.mode == Mode::spike ? "--spike" : "--volset";
    const auto found = std::find(arguments.begin(), arguments.end(), flag);
    if (found == arguments.end() || std::next(found) == arguments.end() ||
        *std::next(found) != invocation.argument) {
      __builtin_trap();
    }
  }
  return 0;
}
