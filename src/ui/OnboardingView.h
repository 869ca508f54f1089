#pragma once

#include <QVariantAnimation>
#include <QWidget>
#include <array>
#include <functional>

#include "state/AppState.h"

class QCheckBox;
class QPushButton;

namespace quellix::ui {

class PageDots;
class PlainButton;
class TextLabel;

// The first-run window: four pages (welcome, how the panel works, the media-key permission,
// launch at login) with back and forward; forward on the last page finishes.
class OnboardingView : public QWidget {
 public:
  static constexpr QSize kSize{460, 440};
  static constexpr int kStepCount = 4;
  static constexpr int kTransitionMilliseconds = 220;
  static constexpr int kPermissionChecks = 30;
  static constexpr Duration kPermissionInterval = std::chrono::seconds(1);

  OnboardingView(AppState& state, std::function<void()> close, QWidget* parent = nullptr);
  ~OnboardingView() override;

  int step() const { return step_; }
  bool mediaPermissionGranted() const { return mediaPermissionGranted_; }

  void forward();
  void back();
  // The media keys need no permission, only players they can reach: says in the log why they
  // cannot, and watches for them becoming reachable.
  void requestPermission();
  void pollMediaPermission();

  QWidget& page(int index) const { return *pages_.at(static_cast<std::size_t>(index)); }
  QWidget& currentPage() const { return page(step_); }
  bool isTransitioning() const;
  PageDots& dots() const { return *dots_; }
  PlainButton& backButton() const { return *back_; }
  QPushButton& forwardButton() const { return *forward_; }
  QWidget& permissionGranted() const { return *granted_; }
  QWidget& permissionRequest() const { return *request_; }
  QPushButton& permissionButton() const { return *permissionButton_; }
  QCheckBox& launchSwitch() const { return *launch_; }

 protected:
  void resizeEvent(QResizeEvent* event) override;

 private:
  QWidget* welcomeStep();
  QWidget* howToStep();
  QWidget* mediaStep();
  QWidget* launchStep();
  QWidget* instruction(const char* symbol, const QString& title, const QString& text);

  void showStep(int step);
  void endTransition();
  void layoutPages();
  void setMediaPermissionGranted(bool granted);
  void renderLaunch();

  AppState& state_;
  std::function<void()> close_;
  int step_ = 0;
  int previousStep_ = -1;
  bool mediaPermissionGranted_ = false;
  QWidget* pageHost_ = nullptr;
  std::array<QWidget*, kStepCount> pages_{};
  PageDots* dots_ = nullptr;
  PlainButton* back_ = nullptr;
  QPushButton* forward_ = nullptr;
  QWidget* granted_ = nullptr;
  QWidget* request_ = nullptr;
  QPushButton* permissionButton_ = nullptr;
  QCheckBox* launch_ = nullptr;
  // A child, so that tests can step it on.
  QVariantAnimation transition_{this};
  std::vector<TaskHandle> polls_;
};

}  // namespace quellix::ui
