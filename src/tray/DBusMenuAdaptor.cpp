#include "tray/DBusMenuAdaptor.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QGuiApplication>

namespace quellix {

namespace {

constexpr uint kProtocolVersion = 3;
const QString kUnknownIDError = QStringLiteral("com.canonical.dbusmenu.Error.UnknownId");

const QString kPropertyType = QStringLiteral("type");
const QString kPropertyLabel = QStringLiteral("label");
const QString kPropertyEnabled = QStringLiteral("enabled");
const QString kPropertyVisible = QStringLiteral("visible");
const QString kPropertyChildrenDisplay = QStringLiteral("children-display");

// A label's underscore marks its access key on this protocol; a literal one is doubled.
QString escapedLabel(const QString& label) {
  QString escaped = label;
  return escaped.replace(QLatin1Char('_'), QStringLiteral("__"));
}

QVariantMap filtered(const QVariantMap& properties, const QStringList& propertyNames) {
  if (propertyNames.isEmpty()) {
    return properties;
  }
  QVariantMap result;
  for (const auto& name : propertyNames) {
    if (const auto found = properties.constFind(name); found != properties.cend()) {
      result.insert(name, *found);
    }
  }
  return result;
}

}  // namespace

DBusMenuAdaptor::DBusMenuAdaptor(DBusMenuObject* object, TriggerHandler triggered)
    : QDBusAbstractAdaptor(object), object_(object), triggered_(std::move(triggered)) {
  registerDBusTrayTypes();
}

int DBusMenuAdaptor::menuIDFor(const TrayMenuEntry& entry, int separatorIndex) {
  // Separators have no id of their own; the n-th separator keeps the n-th separator's id.
  const QString key =
      entry.isSeparator ? QStringLiteral("\x1fseparator%1").arg(separatorIndex) : entry.id;
  auto found = menuIDsByKey_.find(key);
  if (found == menuIDsByKey_.end()) {
    found = menuIDsByKey_.insert(key, ++lastMenuID_);
  }
  return *found;
}

void DBusMenuAdaptor::setEntries(const QList<TrayMenuEntry>& entries) {
  if (entries == entries_) {
    return;
  }
  QList<int> menuIDs;
  int separators = 0;
  for (const auto& entry : entries) {
    menuIDs.append(menuIDFor(entry, entry.isSeparator ? separators++ : 0));
  }
  const bool sameShape = menuIDs == menuIDs_;
  const QList<TrayMenuEntry> previous = std::exchange(entries_, entries);
  menuIDs_ = std::move(menuIDs);

  if (!sameShape) {
    ++revision_;
    emit LayoutUpdated(revision_, kRootID);
    return;
  }
  // Only labels or enabled states changed: send just those entries.
  DBusMenuItemPropertiesList updated;
  for (qsizetype index = 0; index < entries_.size(); ++index) {
    if (!(entries_[index] == previous[index])) {
      updated.append({.id = menuIDs_[index], .properties = propertiesOf(menuIDs_[index], {})});
    }
  }
  emit ItemsPropertiesUpdated(updated, {});
}

qsizetype DBusMenuAdaptor::indexOf(int menuID) const {
  return menuIDs_.indexOf(menuID);
}

QVariantMap DBusMenuAdaptor::propertiesOf(int menuID, const QStringList& propertyNames) const {
  QVariantMap properties;
  if (menuID == kRootID) {
    properties.insert(kPropertyChildrenDisplay, QStringLiteral("submenu"));
  } else if (const auto index = indexOf(menuID); index >= 0) {
    const auto& entry = entries_[index];
    properties.insert(kPropertyVisible, true);
    if (entry.isSeparator) {
      properties.insert(kPropertyType, QStringLiteral("separator"));
    } else {
      properties.insert(kPropertyLabel, escapedLabel(entry.label));
      properties.insert(kPropertyEnabled, entry.enabled);
    }
  }
  return filtered(properties, propertyNames);
}

void DBusMenuAdaptor::failUnknown(const QString& text) {
  object_->failCall(kUnknownIDError, text);
}

uint DBusMenuAdaptor::version() const {
  return kProtocolVersion;
}

QString DBusMenuAdaptor::textDirection() const {
  return QGuiApplication::layoutDirection() == Qt::RightToLeft ? QStringLiteral("rtl")
                                                               : QStringLiteral("ltr");
}

QString DBusMenuAdaptor::status() const {
  return QStringLiteral("normal");
}

QStringList DBusMenuAdaptor::iconThemePath() const {
  return {};
}

uint DBusMenuAdaptor::GetLayout(int parentId, int recursionDepth, const QStringList& propertyNames,
                                DBusMenuLayoutItem& layout) {
  if (!isKnown(parentId)) {
    failUnknown(QStringLiteral("No menu entry %1").arg(parentId));
    return 0;
  }
  layout = {.id = parentId, .properties = propertiesOf(parentId, propertyNames)};
  if (parentId == kRootID && recursionDepth != 0) {
    for (const int menuID : menuIDs_) {
      layout.children.append({.id = menuID, .properties = propertiesOf(menuID, propertyNames)});
    }
  }
  return revision_;
}

DBusMenuItemPropertiesList DBusMenuAdaptor::GetGroupProperties(const QList<int>& ids,
                                                               const QStringList& propertyNames) {
  DBusMenuItemPropertiesList result;
  const QList<int> wanted = ids.isEmpty() ? menuIDs_ : ids;
  for (const int menuID : wanted) {
    if (isKnown(menuID)) {
      result.append({.id = menuID, .properties = propertiesOf(menuID, propertyNames)});
    }
  }
  return result;
}

QDBusVariant DBusMenuAdaptor::GetProperty(int id, const QString& name) {
  const QVariantMap properties = propertiesOf(id, {name});
  if (!isKnown(id) || properties.isEmpty()) {
    failUnknown(QStringLiteral("No property %1 on entry %2").arg(name).arg(id));
    return QDBusVariant(QString());
  }
  return QDBusVariant(properties.first());
}

bool DBusMenuAdaptor::handleEvent(int menuID, const QString& eventId) {
  const auto index = indexOf(menuID);
  if (index < 0) {
    return menuID == kRootID;
  }
  const auto& entry = entries_[index];
  if (eventId == QLatin1String("clicked") && entry.enabled && !entry.isSeparator && triggered_) {
    // A copy: the handler may replace the entries.
    const QString entryID = entry.id;
    triggered_(entryID);
  }
  return true;
}

void DBusMenuAdaptor::Event(int id, const QString& eventId, const QDBusVariant& /*data*/,
                            uint /*timestamp*/) {
  if (!handleEvent(id, eventId)) {
    failUnknown(QStringLiteral("No menu entry %1").arg(id));
  }
}

QList<int> DBusMenuAdaptor::EventGroup(const DBusMenuEventList& events) {
  QList<int> idErrors;
  for (const auto& event : events) {
    if (!handleEvent(event.id, event.eventId)) {
      idErrors.append(event.id);
    }
  }
  return idErrors;
}

bool DBusMenuAdaptor::AboutToShow(int /*id*/) {
  return false;
}

QList<int> DBusMenuAdaptor::AboutToShowGroup(const QList<int>& ids, QList<int>& idErrors) {
  idErrors.clear();
  for (const int menuID : ids) {
    if (!isKnown(menuID)) {
      idErrors.append(menuID);
    }
  }
  return {};
}

}  // namespace quellix
