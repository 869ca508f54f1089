#pragma once

#include <functional>
#include <memory>

class QWidget;

namespace quellix {
class AppState;
}

namespace quellix::ui {

// What the scene builds its panel and windows from.
std::unique_ptr<QWidget> makeMenuBarView(AppState& state);
std::unique_ptr<QWidget> makeOnboardingView(AppState& state, std::function<void()> close);
std::unique_ptr<QWidget> makeAboutView(AppState& state);

}  // namespace quellix::ui
