#include "tray/StatusNotifierItemAdaptor.h"

namespace quellix {

namespace {

// A sound control is hardware in the panels' grouping, next to the system's own volume.
const QString kCategory = QStringLiteral("Hardware");
const QString kItemID = QStringLiteral("com.norvalin.quellix");
const QString kStatusActive = QStringLiteral("Active");

bool samePixmaps(const TrayIconPixmapList& left, const TrayIconPixmapList& right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [](const TrayIconPixmap& a, const TrayIconPixmap& b) {
                      return a.width == b.width && a.height == b.height && a.bytes == b.bytes;
                    });
}

}  // namespace

StatusNotifierItemAdaptor::StatusNotifierItemAdaptor(QObject* object,
                                                     const QDBusObjectPath& menuPath,
                                                     Handlers handlers)
    : QDBusAbstractAdaptor(object), menuPath_(menuPath), handlers_(std::move(handlers)) {
  registerDBusTrayTypes();
}

void StatusNotifierItemAdaptor::setTitle(const QString& title) {
  if (title == title_) {
    return;
  }
  title_ = title;
  emit NewTitle();
}

void StatusNotifierItemAdaptor::setIcon(const QString& iconName,
                                        const TrayIconPixmapList& pixmaps) {
  if (iconName == iconName_ && samePixmaps(pixmaps, pixmaps_)) {
    return;
  }
  iconName_ = iconName;
  pixmaps_ = pixmaps;
  emit NewIcon();
}

void StatusNotifierItemAdaptor::setToolTip(const QString& title, const QString& text) {
  if (title == toolTipTitle_ && text == toolTipText_) {
    return;
  }
  toolTipTitle_ = title;
  toolTipText_ = text;
  emit NewToolTip();
}

QString StatusNotifierItemAdaptor::category() const {
  return kCategory;
}

QString StatusNotifierItemAdaptor::id() const {
  return kItemID;
}

QString StatusNotifierItemAdaptor::status() const {
  return kStatusActive;
}

TrayToolTip StatusNotifierItemAdaptor::toolTip() const {
  return {.iconName = iconName_, .pixmaps = {}, .title = toolTipTitle_, .text = toolTipText_};
}

void StatusNotifierItemAdaptor::Activate(int x, int y) {
  // Hosts that do not know where the icon is send 0, 0: that is QPoint's null point too.
  if (handlers_.activated) {
    handlers_.activated(QPoint(x, y));
  }
}

// A middle click has no meaning of its own here.
void StatusNotifierItemAdaptor::SecondaryActivate(int /*x*/, int /*y*/) {}

// Hosts ask for this only for items without a menu of their own; this one always has one.
void StatusNotifierItemAdaptor::ContextMenu(int /*x*/, int /*y*/) {}

void StatusNotifierItemAdaptor::Scroll(int delta, const QString& orientation) {
  if (!handlers_.scrolled || delta == 0) {
    return;
  }
  const bool horizontal =
      orientation.compare(QLatin1String("horizontal"), Qt::CaseInsensitive) == 0;
  handlers_.scrolled(delta, horizontal ? Qt::Horizontal : Qt::Vertical);
}

}  // namespace quellix
