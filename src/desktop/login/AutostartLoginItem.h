#pragma once

#include <filesystem>
#include <optional>
#include <vector>

#include "desktop/login/LoginItem.h"

namespace quellix {

// Launch at login through the desktop's XDG autostart folder: an entry in the user's
// autostart folder, which overrides a system-wide entry of the same name.
class AutostartLoginItem final : public LoginItem {
 public:
  // `configHome` holds the user's autostart folder, `configDirs` the system-wide ones (earlier
  // ones win), `program` is what the entry starts.
  AutostartLoginItem(std::filesystem::path configHome,
                     std::vector<std::filesystem::path> configDirs, std::filesystem::path program);

  // The desktop session's folders and this program: the AppImage file when running as one.
  static std::shared_ptr<AutostartLoginItem> forThisProgram();

  LoginItemStatus status() const override;
  void registerItem() override;
  void unregisterItem() override;

  // The user's entry; register writes it, unregister removes or hides it.
  std::filesystem::path userEntry() const;

 private:
  std::optional<std::filesystem::path> systemEntry() const;
  bool startsThisProgram(const std::string& exec) const;
  void write(const std::string& contents) const;

  std::filesystem::path configHome_;
  std::vector<std::filesystem::path> configDirs_;
  std::filesystem::path program_;
};

}  // namespace quellix
