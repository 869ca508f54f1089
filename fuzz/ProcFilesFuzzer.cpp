// The bytes of a process's stat, environ, cgroup and .flatpak-info files; every parser gets
// every input, since a process may put almost anything into its name and environment.
#include <cstdint>
#include <string_view>

#include "desktop/apps/ProcFiles.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quellix;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  if (const auto stat = ProcFiles::parseStat(bytes); stat && stat->name.size() >= size) {
    __builtin_trap();  // the name lies inside the line
  }
  ProcFiles::launchedDesktopID(bytes, 11);
  ProcFiles::flatpakAppID(bytes);
  ProcFiles::cgroupCandidates(bytes);
  return 0;
}
