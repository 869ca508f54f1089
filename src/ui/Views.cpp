#include "ui/Views.h"

#include <QCoreApplication>

#include "ui/AboutView.h"
#include "ui/MenuBarView.h"
#include "ui/OnboardingView.h"
#include "ui/ViewWindow.h"

namespace quellix::ui {

std::unique_ptr<QWidget> makeMenuBarView(AppState& state) {
  return std::make_unique<MenuBarView>(state);
}

std::unique_ptr<AuxiliaryWindow> makeOnboardingWindow(AppState& state,
                                                      std::function<void()> close) {
  return std::make_unique<ViewWindow>(
      QCoreApplication::translate("AppState", "Willkommen bei Quellix"),
      std::make_unique<OnboardingView>(state, std::move(close)));
}

std::unique_ptr<AuxiliaryWindow> makeAboutWindow(AppState& state) {
  return std::make_unique<ViewWindow>(QCoreApplication::translate("AppState", "Über Quellix"),
                                      std::make_unique<AboutView>(state));
}

}  // namespace quellix::ui
