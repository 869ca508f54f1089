#include "desktop/login/LoginItem.h"

#include <filesystem>

#include "desktop/login/AutostartLoginItem.h"
#include "desktop/login/SandboxedLoginItem.h"

namespace quellix {

std::shared_ptr<LoginItem> makeLoginItem() {
  std::error_code error;
  if (std::filesystem::exists(SandboxedLoginItem::kSandboxMarker, error)) {
    return std::make_shared<SandboxedLoginItem>();
  }
  return AutostartLoginItem::forThisProgram();
}

}  // namespace quellix
