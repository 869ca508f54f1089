#pragma once

#include <sys/types.h>

#include <QDBusConnection>
#include <QRect>
#include <QString>
#include <optional>
#include <vector>

namespace quellix::testing {

// Another program's widgets as an assistive technology sees them (AT-SPI over the session's
// accessibility bus): found by role and name, with their place on the screen. The program
// must run with its accessibility bridge on (QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1).
class AccessibleUi {
 public:
  struct Element {
    QString path;
    QString name;
    QString description;  // a widget's tooltip unless it says otherwise
    QRect extents;        // in screen coordinates
    bool showing = false;
  };

  explicit AccessibleUi(QDBusConnection session);
  ~AccessibleUi();
  AccessibleUi(const AccessibleUi&) = delete;
  AccessibleUi& operator=(const AccessibleUi&) = delete;

  // The push buttons of the program with `pid` that are on the screen now.
  std::vector<Element> showingButtons(pid_t pid);
  std::optional<Element> showingButton(pid_t pid, const QString& name);
  // The showing button whose name contains `word` (in any case) and whose description ends
  // with one of `descriptionEndings`.
  std::optional<Element> showingButton(pid_t pid, const QString& word,
                                       const QStringList& descriptionEndings);

 private:
  bool connect();
  std::optional<Element> describe(const QString& service, const QString& path);

  QDBusConnection session_;
  std::optional<QDBusConnection> bus_;
};

}  // namespace quellix::testing
