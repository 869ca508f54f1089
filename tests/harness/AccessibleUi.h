#pragma once

#include <sys/types.h>

#include <QDBusConnection>
#include <QRect>
#include <QString>
#include <QStringList>
#include <optional>
#include <vector>

namespace quellix::testing {

// Another program's widgets as an assistive technology sees them (AT-SPI over the session's
// accessibility bus): reached from the program's application object through the children of
// each object, as a screen reader's object navigation does, found by role and name, with their
// place on the screen, and used through their accessible actions and values. The program must
// run with its accessibility bridge on (QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1).
class AccessibleUi {
 public:
  struct Element {
    QString service;
    QString path;
    QString role;  // AT-SPI's role name: "push button", "check box", "slider", ...
    QString name;
    QString description;  // a widget's tooltip unless it says otherwise
    QRect extents;        // in screen coordinates
    bool showing = false;
    bool checked = false;
    bool enabled = false;
  };

  explicit AccessibleUi(QDBusConnection session);
  ~AccessibleUi();
  AccessibleUi(const AccessibleUi&) = delete;
  AccessibleUi& operator=(const AccessibleUi&) = delete;

  // Every object below the application object of the program with `pid`, level by level.
  std::vector<Element> tree(pid_t pid);
  // What a user operates (buttons, check boxes, sliders) and is on the screen now.
  std::vector<Element> showingControls(pid_t pid);
  std::optional<Element> showingControl(pid_t pid, const QString& name);
  // The showing control whose name contains `word` (in any case) and whose description ends
  // with one of `descriptionEndings`.
  std::optional<Element> showingControl(pid_t pid, const QString& word,
                                        const QStringList& descriptionEndings);

  // The names of the element's actions ("Press", "Toggle", ...).
  QStringList actions(const Element& element);
  // Does the action named `action` as an assistive technology would; false when it has none.
  bool doAction(const Element& element, const QString& action);
  // The value of a slider or the like, and setting it.
  std::optional<double> value(const Element& element);
  std::optional<double> maximumValue(const Element& element);
  bool setValue(const Element& element, double value);

  static bool isControl(const QString& role);

 private:
  bool connect();
  std::vector<Element> describe(const QString& service, const QStringList& paths);

  QDBusConnection session_;
  std::optional<QDBusConnection> bus_;
};

}  // namespace quellix::testing
