#include "ui/ViewRules.h"

#include <QCoreApplication>
#include <cmath>

namespace quellix::ui::ViewRules {
namespace {

constexpr double kSecondsPerMinute = 60;
constexpr double kSecondsPerHour = 3600;
constexpr double kWholeHoursFrom = 10;

QString whole(double value) {
  return QString::number(static_cast<std::int64_t>(std::trunc(value)));
}

}  // namespace

QString subtitle(std::size_t appCount, int activeMuteCount) {
  if (appCount == 0) {
    return QCoreApplication::translate("MenuBarView", "Keine App spielt gerade Audio");
  }
  if (activeMuteCount != 0) {
    return QCoreApplication::translate("MenuBarView", "%1 von %2 stummgeschaltet")
        .arg(activeMuteCount)
        .arg(appCount);
  }
  if (appCount == 1) {
    return QCoreApplication::translate("MenuBarView", "1 App mit Audio");
  }
  return QCoreApplication::translate("MenuBarView", "%1 Apps mit Audio").arg(appCount);
}

QString volumeIcon(bool isMuted, double volume) {
  if (isMuted) {
    return QStringLiteral("speaker.slash.fill");
  }
  if (volume == 0) {
    return QStringLiteral("speaker.fill");
  }
  if (volume < kOneWaveBelow) {
    return QStringLiteral("speaker.wave.1.fill");
  }
  if (volume < kTwoWavesBelow) {
    return QStringLiteral("speaker.wave.2.fill");
  }
  return QStringLiteral("speaker.wave.3.fill");
}

QString masterMuteTooltip(bool isMuted) {
  return isMuted ? QCoreApplication::translate("MenuBarView", "System-Ton wieder einschalten")
                 : QCoreApplication::translate("MenuBarView", "System stummschalten");
}

MassAction massAction(int activeMuteCount, bool hasApps) {
  if (activeMuteCount >= 1) {
    return MassAction::unmuteAll;
  }
  return hasApps ? MassAction::muteAll : MassAction::none;
}

QString massActionText(MassAction action) {
  switch (action) {
    case MassAction::unmuteAll:
      return QCoreApplication::translate("MenuBarView", "Alle wieder laut");
    case MassAction::muteAll:
      return QCoreApplication::translate("MenuBarView", "Alle stummschalten");
    case MassAction::none:
      break;
  }
  return {};
}

QString updateNotice(const QString& version) {
  return QCoreApplication::translate("MenuBarView", "Update verfügbar: Version %1").arg(version);
}

QString rowTooltip(const QString& appName, bool isMuted) {
  return isMuted ? QCoreApplication::translate("AppRowView", "%1 wieder hörbar machen").arg(appName)
                 : QCoreApplication::translate("AppRowView", "%1 stummschalten").arg(appName);
}

QString stateSymbol(bool isMuted) {
  return isMuted ? QStringLiteral("speaker.slash.fill") : QStringLiteral("speaker.wave.2");
}

bool showsPlayingIndicator(bool isPlaying, bool isMuted) {
  return isPlaying && !isMuted;
}

double sliderOpacity(bool isMuted, float volume) {
  if (isMuted) {
    return kMutedSliderOpacity;
  }
  return volume < kFullVolume ? 1.0 : kFullVolumeSliderOpacity;
}

double iconOpacity(bool isMuted) {
  return isMuted ? kMutedIconOpacity : 1.0;
}

QString quietTimeText(double seconds) {
  if (seconds < kSecondsPerMinute) {
    return whole(seconds) + QStringLiteral(" s");
  }
  if (seconds < kSecondsPerHour) {
    return whole(seconds / kSecondsPerMinute) + QStringLiteral(" min");
  }
  const double hours = seconds / kSecondsPerHour;
  if (hours < kWholeHoursFrom) {
    // QString::number always writes a decimal point, whatever the locale.
    return QString::number(hours, 'f', 1) + QStringLiteral(" h");
  }
  return whole(hours) + QStringLiteral(" h");
}

QString muteCountText(std::int64_t count) {
  return QString::number(count);
}

QString muteCountLabel(std::int64_t count) {
  return count == 1 ? QCoreApplication::translate("AboutView", "App gemutet")
                    : QCoreApplication::translate("AboutView", "Apps gemutet");
}

QString versionLine(const std::optional<QString>& shortVersion) {
  return QCoreApplication::translate("AboutView", "Version %1")
      .arg(shortVersion ? *shortVersion : QStringLiteral("\u2014"));
}

}  // namespace quellix::ui::ViewRules
