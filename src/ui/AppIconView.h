#pragma once

#include <QIcon>
#include <QWidget>

#include "engine/monitor/AudioProcessMonitor.h"

namespace quellix::ui {

// An application's icon: its theme icon (or icon file), its symbol, or the generic application
// symbol when it has neither; drawn at a fixed square size with an opacity.
class AppIconView : public QWidget {
 public:
  static constexpr const char* kGenericSymbol = "app.generic";

  AppIconView(int side, QWidget* parent = nullptr);

  void setIcon(const AppIcon& icon);
  const AppIcon& icon() const { return icon_; }
  // What is drawn: "theme:NAME", "file:PATH", "resource:PATH" or "symbol:NAME".
  const QString& source() const { return source_; }

  void setOpacity(double opacity);
  double opacity() const { return opacity_; }

  QSize sizeHint() const override { return {side_, side_}; }

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  int side_;
  AppIcon icon_;
  QIcon themeIcon_;
  QString symbol_;
  QString source_;
  double opacity_ = 1.0;
};

}  // namespace quellix::ui
