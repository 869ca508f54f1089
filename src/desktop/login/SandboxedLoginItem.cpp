#include "desktop/login/SandboxedLoginItem.h"

#include "support/TextError.h"

namespace quellix {
namespace {

[[noreturn]] void refuse() {
  throw TextError(
      "Starting at login is not supported inside a Flatpak sandbox: the autostart folder of the "
      "desktop is out of reach from here");
}

}  // namespace

LoginItemStatus SandboxedLoginItem::status() const {
  return LoginItemStatus::notFound;
}

void SandboxedLoginItem::registerItem() {
  refuse();
}

void SandboxedLoginItem::unregisterItem() {
  refuse();
}

}  // namespace quellix
