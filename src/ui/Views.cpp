#include "ui/Views.h"

#include "ui/AboutView.h"
#include "ui/MenuBarView.h"
#include "ui/OnboardingView.h"

namespace quellix::ui {

std::unique_ptr<QWidget> makeMenuBarView(AppState& state) {
  return std::make_unique<MenuBarView>(state);
}

std::unique_ptr<QWidget> makeOnboardingView(AppState& state, std::function<void()> close) {
  return std::make_unique<OnboardingView>(state, std::move(close));
}

std::unique_ptr<QWidget> makeAboutView(AppState& state) {
  return std::make_unique<AboutView>(state);
}

}  // namespace quellix::ui
