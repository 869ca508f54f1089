#pragma once

#include <functional>
#include <memory>

class QWidget;

namespace quellix {
class AppState;
class AuxiliaryWindow;
}  // namespace quellix

namespace quellix::ui {

// What the composition root builds its panel and windows from.
std::unique_ptr<QWidget> makeMenuBarView(AppState& state);
std::unique_ptr<AuxiliaryWindow> makeOnboardingWindow(AppState& state, std::function<void()> close);
std::unique_ptr<AuxiliaryWindow> makeAboutWindow(AppState& state);

}  // namespace quellix::ui
