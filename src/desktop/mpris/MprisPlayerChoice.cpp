#include "desktop/mpris/MprisPlayerChoice.h"

#include <tuple>

namespace quellix {

void MprisPlayerChoice::appeared(const std::string& name) {
  if (!players_.contains(name)) {
    players_[name].appearedAt = ++sequence_;
  }
}

void MprisPlayerChoice::left(const std::string& name) {
  players_.erase(name);
  if (lastChosen_ == name) {
    lastChosen_.reset();
  }
}

void MprisPlayerChoice::statusRead(const std::string& name, MprisPlaybackStatus status) {
  if (const auto player = players_.find(name); player != players_.end()) {
    player->second.status = status;
  }
}

void MprisPlayerChoice::statusChanged(const std::string& name, MprisPlaybackStatus status) {
  const auto player = players_.find(name);
  if (player == players_.end() || player->second.status == status) {
    return;
  }
  player->second.status = status;
  player->second.changedAt = ++sequence_;
}

std::optional<std::string> MprisPlayerChoice::choose() {
  auto chosen = current();
  if (chosen) {
    lastChosen_ = chosen;
  }
  return chosen;
}

std::optional<std::string> MprisPlayerChoice::current() const {
  // Ranked by: playing, then the latest change, then being the last choice, then the latest
  // to appear, so a choice exists whenever a player does.
  const std::map<std::string, Player>::value_type* best = nullptr;
  auto rank = [&](const std::map<std::string, Player>::value_type& entry) {
    const Player& player = entry.second;
    return std::make_tuple(player.status == MprisPlaybackStatus::playing, player.changedAt,
                           lastChosen_ == entry.first, player.appearedAt);
  };
  for (const auto& entry : players_) {
    if (best == nullptr || rank(entry) > rank(*best)) {
      best = &entry;
    }
  }
  return best != nullptr ? std::optional<std::string>(best->first) : std::nullopt;
}

std::vector<std::string> MprisPlayerChoice::players() const {
  std::vector<std::string> names;
  for (const auto& entry : players_) {
    names.push_back(entry.first);
  }
  return names;
}

std::optional<MprisPlaybackStatus> MprisPlayerChoice::status(const std::string& name) const {
  const auto player = players_.find(name);
  return player != players_.end() ? std::optional(player->second.status) : std::nullopt;
}

}  // namespace quellix
