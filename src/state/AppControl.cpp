#include "state/AppControl.h"

#include <QString>
#include <algorithm>
#include <cmath>
#include <utility>

namespace quellix {
namespace {

constexpr std::string_view kDesktopSuffix = ".desktop";
constexpr int kMaxAncestors = 64;

bool sameText(const std::string& a, const std::string& b) {
  return QString::fromStdString(a).compare(QString::fromStdString(b), Qt::CaseInsensitive) == 0;
}

// "firefox.desktop" names the same application as "firefox".
std::string withoutDesktopSuffix(const std::string& query) {
  if (query.size() > kDesktopSuffix.size() && query.ends_with(kDesktopSuffix)) {
    return query.substr(0, query.size() - kDesktopSuffix.size());
  }
  return query;
}

int percent(double fraction) {
  return static_cast<int>(std::lround(std::clamp(fraction, 0.0, 1.0) * AppControl::kMaxPercent));
}

std::string describeError(AppControl::Error::Kind kind, const std::string& subject) {
  switch (kind) {
    case AppControl::Error::Kind::unknownApp:
      return "no application named " + subject;
    case AppControl::Error::Kind::ambiguousApp:
      return "more than one application named " + subject;
    case AppControl::Error::Kind::volumeOutOfRange:
      return "volume " + subject + " is not a number from 0 to 100";
  }
  return subject;
}

}  // namespace

AppControl::Error::Error(Kind kind, std::string subject, std::vector<std::string> candidates)
    : TextError(describeError(kind, subject)),
      kind_(kind),
      subject_(std::move(subject)),
      candidates_(std::move(candidates)) {}

AppControl::AppControl(MainQueue& queue, AudioProcessMonitor& monitor, MuteController& muter,
                       SystemVolumeController& systemVolume, ProcessName processName,
                       ParentPID parentPID)
    : queue_(queue),
      monitor_(monitor),
      muter_(muter),
      systemVolume_(systemVolume),
      processName_(std::move(processName)),
      parentPID_(std::move(parentPID)) {}

AppListing AppControl::listing(const AudioApp& app) const {
  const std::string key = app.key();
  const auto& volumes = muter_.volumes().get();
  const auto volume = volumes.find(key);
  return {.name = app.name,
          .id = key,
          .muted = muter_.mutedKeys().get().count(key) > 0,
          .volume = volume == volumes.end() ? kMaxPercent : percent(volume->second)};
}

std::vector<AppListing> AppControl::apps() const {
  std::vector<AppListing> listings;
  for (const auto& app : monitor_.apps().get()) {
    listings.push_back(listing(app));
  }
  return listings;
}

AudioApp AppControl::find(const std::string& query) const {
  const std::string id = withoutDesktopSuffix(query);
  const auto& apps = monitor_.apps().get();
  // A desktop id names one application however many share its display name.
  for (const auto& app : apps) {
    if (sameText(app.key(), id)) {
      return app;
    }
  }
  std::vector<const AudioApp*> found;
  for (const auto& app : apps) {
    const std::optional<std::string> executable =
        processName_ ? processName_(app.id) : std::nullopt;
    if (sameText(app.name, query) || (executable && sameText(*executable, query))) {
      found.push_back(&app);
    }
  }
  if (found.size() == 1) {
    return *found.front();
  }
  if (found.empty()) {
    throw Error(Error::Kind::unknownApp, query);
  }
  std::vector<std::string> candidates;
  for (const AudioApp* app : found) {
    candidates.push_back(app->name + " (" + app->key() + ")");
  }
  throw Error(Error::Kind::ambiguousApp, query, std::move(candidates));
}

AppListing AppControl::setMuted(const std::string& query, bool muted) {
  const AudioApp app = find(query);
  if (listing(app).muted != muted) {
    muter_.toggle(app);
  }
  return listing(app);
}

AppListing AppControl::mute(const std::string& query) {
  return setMuted(query, true);
}

AppListing AppControl::unmute(const std::string& query) {
  return setMuted(query, false);
}

AppListing AppControl::hearOnly(const std::string& query) {
  const AudioApp app = find(query);
  muter_.hearOnly(app);
  return listing(app);
}

AppListing AppControl::toggle(const std::string& query) {
  const AudioApp app = find(query);
  muter_.toggle(app);
  return listing(app);
}

namespace {

float checkedFraction(double percent) {
  // NaN fails both comparisons and lands here too.
  if (!(percent >= 0.0 && percent <= AppControl::kMaxPercent)) {
    throw AppControl::Error(AppControl::Error::Kind::volumeOutOfRange,
                            std::isnan(percent) ? "NaN" : std::to_string(percent));
  }
  return static_cast<float>(percent / AppControl::kMaxPercent);
}

}  // namespace

AppListing AppControl::setVolume(const std::string& query, double percent) {
  const float fraction = checkedFraction(percent);
  const AudioApp app = find(query);
  muter_.setVolume(fraction, app);
  return listing(app);
}

std::optional<AppListing> AppControl::toggleProcess(pid_t pid) {
  const auto& apps = monitor_.apps().get();
  std::optional<pid_t> current = pid;
  // A bounded walk: a /proc read in the middle of a reparenting must not loop.
  for (int depth = 0; current && *current > 1 && depth < kMaxAncestors; ++depth) {
    const auto found = std::find_if(apps.begin(), apps.end(),
                                    [&](const AudioApp& app) { return app.id == *current; });
    if (found != apps.end()) {
      const AudioApp app = *found;
      muter_.toggle(app);
      return listing(app);
    }
    current = parentPID_ ? parentPID_(*current) : std::nullopt;
  }
  return std::nullopt;
}

void AppControl::setMasterVolume(double percent) {
  systemVolume_.setVolume(checkedFraction(percent));
}

void AppControl::setMasterMuted(bool muted) {
  systemVolume_.setMuted(muted);
}

int AppControl::masterVolume() const {
  return percent(systemVolume_.volume().get());
}

bool AppControl::masterMuted() const {
  return systemVolume_.isMuted().get();
}

void AppControl::onAppChanged(std::function<void(const AppListing&)> changed) {
  appChanged_ = std::move(changed);
  lastApps_ = apps();
  if (std::exchange(watchingApps_, true)) {
    return;
  }
  // Re-read once the change is complete, not in the middle of it.
  auto later = [this, alive = std::weak_ptr<bool>(alive_)] {
    queue_.post([this, alive] {
      if (alive.lock()) {
        watchApps();
      }
    });
  };
  subscriptions_.push_back(muter_.mutedKeys().observe(later));
  subscriptions_.push_back(muter_.volumes().observe(later));
  subscriptions_.push_back(monitor_.apps().observe(later));
}

void AppControl::onMasterChanged(std::function<void(int, bool)> changed) {
  masterChanged_ = std::move(changed);
  lastMaster_ = {masterVolume(), masterMuted()};
  if (std::exchange(watchingMaster_, true)) {
    return;
  }
  auto later = [this, alive = std::weak_ptr<bool>(alive_)] {
    queue_.post([this, alive] {
      if (alive.lock()) {
        watchMaster();
      }
    });
  };
  subscriptions_.push_back(systemVolume_.volume().observe(later));
  subscriptions_.push_back(systemVolume_.isMuted().observe(later));
}

void AppControl::watchApps() {
  std::vector<AppListing> current = apps();
  for (const auto& app : current) {
    const auto before = std::find_if(lastApps_.begin(), lastApps_.end(),
                                     [&](const AppListing& last) { return last.id == app.id; });
    // An application that just appeared brings its state along; nothing changed for it.
    const bool changed =
        before != lastApps_.end() && (before->muted != app.muted || before->volume != app.volume);
    if (changed && appChanged_) {
      appChanged_(app);
    }
  }
  lastApps_ = std::move(current);
}

void AppControl::watchMaster() {
  const std::pair<int, bool> current{masterVolume(), masterMuted()};
  if (current != lastMaster_ && masterChanged_) {
    lastMaster_ = current;
    masterChanged_(current.first, current.second);
  }
}

}  // namespace quellix
