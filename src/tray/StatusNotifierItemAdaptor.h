#pragma once

#include <QDBusAbstractAdaptor>
#include <QDBusObjectPath>
#include <QPoint>
#include <QString>
#include <functional>

#include "tray/DBusTrayTypes.h"

namespace quellix {

// The tray item as the panels see it on D-Bus (org.kde.StatusNotifierItem): what it looks
// like, and the clicks and scrolls the panel forwards to it.
class StatusNotifierItemAdaptor final : public QDBusAbstractAdaptor {
  Q_OBJECT
  Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierItem")
  Q_PROPERTY(QString Category READ category)
  Q_PROPERTY(QString Id READ id)
  Q_PROPERTY(QString Title READ title)
  Q_PROPERTY(QString Status READ status)
  Q_PROPERTY(int WindowId READ windowId)
  Q_PROPERTY(QString IconThemePath READ iconThemePath)
  Q_PROPERTY(QString IconName READ iconName)
  Q_PROPERTY(quellix::TrayIconPixmapList IconPixmap READ iconPixmap)
  Q_PROPERTY(QString OverlayIconName READ noIconName)
  Q_PROPERTY(quellix::TrayIconPixmapList OverlayIconPixmap READ noIconPixmap)
  Q_PROPERTY(QString AttentionIconName READ noIconName)
  Q_PROPERTY(quellix::TrayIconPixmapList AttentionIconPixmap READ noIconPixmap)
  Q_PROPERTY(QString AttentionMovieName READ noIconName)
  Q_PROPERTY(quellix::TrayToolTip ToolTip READ toolTip)
  Q_PROPERTY(bool ItemIsMenu READ itemIsMenu)
  Q_PROPERTY(QDBusObjectPath Menu READ menu)

 public:
  struct Handlers {
    std::function<void(QPoint where)> activated;
    std::function<void(int delta, Qt::Orientation orientation)> scrolled;
  };

  StatusNotifierItemAdaptor(QObject* object, const QDBusObjectPath& menuPath, Handlers handlers);

  // Each setter tells the host only when something changed.
  void setTitle(const QString& title);
  void setIcon(const QString& iconName, const TrayIconPixmapList& pixmaps);
  // Where hosts look for the icon names beside their own theme; set before the item is shown.
  void setIconThemePath(const QString& path) { iconThemePath_ = path; }
  void setToolTip(const QString& title, const QString& text);

  QString category() const;
  QString id() const;
  QString title() const { return title_; }
  QString status() const;
  int windowId() const { return 0; }
  QString iconThemePath() const { return iconThemePath_; }
  QString iconName() const { return iconName_; }
  TrayIconPixmapList iconPixmap() const { return pixmaps_; }
  QString noIconName() const { return {}; }
  TrayIconPixmapList noIconPixmap() const { return {}; }
  TrayToolTip toolTip() const;
  bool itemIsMenu() const { return false; }
  QDBusObjectPath menu() const { return menuPath_; }

 public slots:
  void Activate(int x, int y);
  void SecondaryActivate(int x, int y);
  void ContextMenu(int x, int y);
  void Scroll(int delta, const QString& orientation);

 signals:
  void NewTitle();
  void NewIcon();
  void NewAttentionIcon();
  void NewOverlayIcon();
  void NewToolTip();
  void NewStatus(const QString& status);

 private:
  QDBusObjectPath menuPath_;
  Handlers handlers_;
  QString title_;
  QString iconName_;
  QString iconThemePath_;
  TrayIconPixmapList pixmaps_;
  QString toolTipTitle_;
  QString toolTipText_;
};

}  // namespace quellix
