#pragma once

#include <QUrl>
#include <QWidget>
#include <functional>
#include <optional>

#include "state/AppState.h"

namespace quellix::ui {

class AppIconView;
class PlainButton;
class TextLabel;

// The about window: icon, name and version, what muting has brought so far, and the maker.
class AboutView : public QWidget {
 public:
  static constexpr QSize kSize{340, 330};

  static const QUrl& websiteURL();
  static QString websiteDomain();

  // `shortVersion` is the version the window shows; none shows a dash.
  AboutView(AppState& state, std::optional<QString> shortVersion, QWidget* parent = nullptr);
  explicit AboutView(AppState& state, QWidget* parent = nullptr);

  std::function<void(const QUrl&)> openUrl;

  AppIconView& iconView() const { return *icon_; }
  TextLabel& versionLabel() const { return *version_; }
  TextLabel& muteCountValue() const { return *countValue_; }
  TextLabel& muteCountLabel() const { return *countLabel_; }
  TextLabel& quietTimeValue() const { return *quietValue_; }
  TextLabel& quietTimeLabel() const { return *quietLabel_; }
  PlainButton& link() const { return *link_; }

 private:
  void render();

  AppState& state_;
  AppIconView* icon_ = nullptr;
  TextLabel* version_ = nullptr;
  TextLabel* countValue_ = nullptr;
  TextLabel* countLabel_ = nullptr;
  TextLabel* quietValue_ = nullptr;
  TextLabel* quietLabel_ = nullptr;
  PlainButton* link_ = nullptr;
};

}  // namespace quellix::ui
