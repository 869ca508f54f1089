#pragma once

#include <QString>

namespace quellix {

// One line of the tray item's menu: an entry the user can choose, or a separator.
struct TrayMenuEntry {
  QString id;  // handed back when the entry is chosen; unique within a menu
  QString label;
  bool enabled = true;
  bool isSeparator = false;

  static TrayMenuEntry separator() { return TrayMenuEntry{.isSeparator = true}; }

  bool operator==(const TrayMenuEntry&) const = default;
};

}  // namespace quellix
