#pragma once

#include <QDBusAbstractAdaptor>
#include <QDBusContext>
#include <QDBusVariant>
#include <QHash>
#include <QList>
#include <QStringList>
#include <functional>

#include "tray/DBusTrayTypes.h"
#include "tray/TrayMenuEntry.h"

namespace quellix {

// The object a DBusMenuAdaptor is exported on. Qt D-Bus hands the call being answered to
// this object, not to its adaptors, so the adaptor answers failures through it.
class DBusMenuObject final : public QObject, public QDBusContext {
  Q_OBJECT

 public:
  void failCall(const QString& errorName, const QString& text) const {
    // Only a caller on the bus has a reply to fail.
    if (calledFromDBus()) {
      sendErrorReply(errorName, text);
    }
  }
};

// The tray item's menu as the panels read it over D-Bus (com.canonical.dbusmenu): a flat list
// of entries under the root. The host draws the menu; a chosen entry comes back as an event.
class DBusMenuAdaptor final : public QDBusAbstractAdaptor {
  Q_OBJECT
  Q_CLASSINFO("D-Bus Interface", "com.canonical.dbusmenu")
  Q_PROPERTY(uint Version READ version)
  Q_PROPERTY(QString TextDirection READ textDirection)
  Q_PROPERTY(QString Status READ status)
  Q_PROPERTY(QStringList IconThemePath READ iconThemePath)

 public:
  using TriggerHandler = std::function<void(const QString& entryID)>;

  // `object` is the exported object this adaptor belongs to; `triggered` receives the id of
  // an enabled entry the user chose.
  DBusMenuAdaptor(DBusMenuObject* object, TriggerHandler triggered);

  void setEntries(const QList<TrayMenuEntry>& entries);
  const QList<TrayMenuEntry>& entries() const { return entries_; }

  uint version() const;
  QString textDirection() const;
  QString status() const;
  QStringList iconThemePath() const;

 public slots:
  uint GetLayout(int parentId, int recursionDepth, const QStringList& propertyNames,
                 quellix::DBusMenuLayoutItem& layout);
  quellix::DBusMenuItemPropertiesList GetGroupProperties(const QList<int>& ids,
                                                         const QStringList& propertyNames);
  QDBusVariant GetProperty(int id, const QString& name);
  void Event(int id, const QString& eventId, const QDBusVariant& data, uint timestamp);
  QList<int> EventGroup(const quellix::DBusMenuEventList& events);
  bool AboutToShow(int id);
  QList<int> AboutToShowGroup(const QList<int>& ids, QList<int>& idErrors);

 signals:
  void ItemsPropertiesUpdated(const quellix::DBusMenuItemPropertiesList& updatedProps,
                              const quellix::DBusMenuRemovedPropertiesList& removedProps);
  void LayoutUpdated(uint revision, int parent);
  void ItemActivationRequested(int id, uint timestamp);

 private:
  static constexpr int kRootID = 0;

  int menuIDFor(const TrayMenuEntry& entry, int separatorIndex);
  // Index into entries_ of the entry with this menu id, or -1.
  qsizetype indexOf(int menuID) const;
  bool isKnown(int menuID) const { return menuID == kRootID || indexOf(menuID) >= 0; }
  QVariantMap propertiesOf(int menuID, const QStringList& propertyNames) const;
  void failUnknown(const QString& text);
  // Handles one event; false when the id is unknown.
  bool handleEvent(int menuID, const QString& eventId);

  DBusMenuObject* object_;
  TriggerHandler triggered_;
  QList<TrayMenuEntry> entries_;
  QList<int> menuIDs_;  // parallel to entries_
  // Menu ids stay with their entry across changes, so an event a host sent for the menu it
  // showed still reaches the entry it meant.
  QHash<QString, int> menuIDsByKey_;
  int lastMenuID_ = kRootID;
  uint revision_ = 1;
};

}  // namespace quellix
