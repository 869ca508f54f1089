#pragma once

#include "desktop/login/LoginItem.h"

namespace quellix {

// Inside a Flatpak sandbox the host's autostart folder is out of reach; starting at login
// would have to be asked of the desktop through its Background portal, which this build does
// not do. The item says so instead of pretending.
class SandboxedLoginItem final : public LoginItem {
 public:
  static constexpr const char* kSandboxMarker = "/.flatpak-info";

  LoginItemStatus status() const override;
  void registerItem() override;
  void unregisterItem() override;
};

}  // namespace quellix
