#pragma once

#include <QString>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace quellix::ui {

// The rules by which the views turn state into texts, symbols and looks; pure, so they can be
// checked without a window.
namespace ViewRules {

inline constexpr double kOneWaveBelow = 0.34;
inline constexpr double kTwoWavesBelow = 0.67;
inline constexpr float kFullVolume = 0.995f;
inline constexpr double kMutedSliderOpacity = 0.4;
inline constexpr double kFullVolumeSliderOpacity = 0.65;
inline constexpr double kMutedIconOpacity = 0.55;

// The panel's header line under the title.
QString subtitle(std::size_t appCount, int activeMuteCount);
// The master mute button's symbol.
QString volumeIcon(bool isMuted, double volume);
QString masterMuteTooltip(bool isMuted);

enum class MassAction { none, unmuteAll, muteAll };
MassAction massAction(int activeMuteCount, bool hasApps);
QString massActionText(MassAction action);

QString updateNotice(const QString& version);

// A row of the application list.
QString rowTooltip(const QString& appName, bool isMuted);
QString stateSymbol(bool isMuted);
bool showsPlayingIndicator(bool isPlaying, bool isMuted);
double sliderOpacity(bool isMuted, float volume);
double iconOpacity(bool isMuted);

// The about window.
QString quietTimeText(double seconds);
QString muteCountText(std::int64_t count);
QString muteCountLabel(std::int64_t count);
QString versionLine(const std::optional<QString>& shortVersion);

}  // namespace ViewRules
}  // namespace quellix::ui
