#pragma once

#include <memory>

namespace quellix {

// The states a login item can report; only `enabled` means the program starts at login.
enum class LoginItemStatus { notRegistered = 0, enabled = 1, requiresApproval = 2, notFound = 3 };

// Starting this program when the user logs in.
class LoginItem {
 public:
  virtual ~LoginItem() = default;
  virtual LoginItemStatus status() const = 0;
  // Both throw TextError with a text a user could act on.
  virtual void registerItem() = 0;
  virtual void unregisterItem() = 0;
};

// The login item of the running program on this desktop.
std::shared_ptr<LoginItem> makeLoginItem();

}  // namespace quellix
