// A desktop entry file as any package may install it.
#include <cstdint>
#include <string_view>

#include "desktop/apps/DesktopEntries.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view contents(reinterpret_cast<const char*>(data), size);
  for (const char* locale : {"de_AT.UTF-8@euro", "C"}) {
    const auto entry = quellix::DesktopEntryIndex::parseContents(
        contents, "/usr/share/applications/fuzz.desktop", "fuzz", locale);
    if (entry && entry->name.empty()) {
      __builtin_trap();  // an application entry always has a name
    }
  }
  // Every Exec word we write (the login item, the moved copy's entry) is read back by us or a
  // launcher, so quoting must survive a round trip.
  const auto group = quellix::parseDesktopEntryGroup(contents);
  if (const auto exec = group.find("Exec"); exec != group.end()) {
    for (const auto& argument : quellix::execArguments(exec->second)) {
      const auto again = quellix::execArguments(quellix::execArgument(argument));
      if (again.size() != 1 || again.front() != argument) {
        __builtin_trap();
      }
    }
  }
  return 0;
}
