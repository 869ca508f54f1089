#pragma once

#include <QDBusConnection>
#include <QDBusVirtualObject>
#include <QStringList>

namespace quellix::testing {

// The desktop portal's global shortcuts interface, as far as a client sees it: sessions,
// binding, and an Activated signal the test sends. Serves on `bus` (a connection of its own)
// under the portal's name.
class FakeShortcutPortal final : public QDBusVirtualObject {
 public:
  explicit FakeShortcutPortal(QDBusConnection bus);
  ~FakeShortcutPortal() override;

  bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;
  QString introspect(const QString& path) const override;

  // The user pressed the keys bound to `id`.
  void activate(const QString& id);

  QStringList boundIds;
  QStringList boundDescriptions;

 private:
  void respond(const QDBusMessage& call, const QVariantMap& results);

  QDBusConnection bus_;
  QString session_;
};

}  // namespace quellix::testing
