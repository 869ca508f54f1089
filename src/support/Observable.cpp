#include "support/Observable.h"

#include <algorithm>

namespace quellix {

struct ObservationRegistrar::Tracker {
  std::function<void()> onChange;
  bool fired = false;
};

struct ObservationRegistrar::Core {
  std::vector<std::shared_ptr<Tracker>> trackers;
  std::vector<std::pair<std::uint64_t, std::shared_ptr<std::function<void()>>>> observers;
  std::uint64_t nextObserverId = 1;

  void pruneFiredTrackers() {
    std::erase_if(trackers, [](const auto& tracker) { return tracker->fired; });
  }
};

namespace {

// The registrars read by the tracking scope that runs on this thread.
thread_local std::vector<std::weak_ptr<ObservationRegistrar::Core>>* currentScope = nullptr;

}  // namespace

Subscription& Subscription::operator=(Subscription&& other) noexcept {
  if (this != &other) {
    cancel();
    cancel_ = std::exchange(other.cancel_, {});
  }
  return *this;
}

void Subscription::cancel() {
  if (auto cancel = std::exchange(cancel_, {})) {
    cancel();
  }
}

ObservationRegistrar::ObservationRegistrar() : core_(std::make_shared<Core>()) {}

void ObservationRegistrar::access() const {
  if (currentScope != nullptr) {
    currentScope->push_back(core_);
  }
}

void ObservationRegistrar::notify() const {
  // Callbacks may read or change observables, or end observations: work on copies.
  auto trackers = std::exchange(core_->trackers, {});
  auto observers = core_->observers;
  for (const auto& tracker : trackers) {
    if (!tracker->fired) {
      tracker->fired = true;
      tracker->onChange();
    }
  }
  for (const auto& [id, onChange] : observers) {
    (*onChange)();
  }
}

Subscription ObservationRegistrar::observe(std::function<void()> onChange) const {
  const std::uint64_t id = core_->nextObserverId++;
  core_->observers.emplace_back(id, std::make_shared<std::function<void()>>(std::move(onChange)));
  return Subscription([weakCore = std::weak_ptr<Core>(core_), id] {
    if (auto core = weakCore.lock()) {
      std::erase_if(core->observers, [id](const auto& entry) { return entry.first == id; });
    }
  });
}

void withObservationTracking(const std::function<void()>& apply, std::function<void()> onChange) {
  std::vector<std::weak_ptr<ObservationRegistrar::Core>> accessed;
  auto* outerScope = std::exchange(currentScope, &accessed);
  try {
    apply();
  } catch (...) {
    currentScope = outerScope;
    throw;
  }
  currentScope = outerScope;

  auto tracker = std::make_shared<ObservationRegistrar::Tracker>();
  tracker->onChange = std::move(onChange);
  std::vector<ObservationRegistrar::Core*> attached;
  for (const auto& weakCore : accessed) {
    auto core = weakCore.lock();
    if (!core || std::find(attached.begin(), attached.end(), core.get()) != attached.end()) {
      continue;
    }
    core->pruneFiredTrackers();
    core->trackers.push_back(tracker);
    attached.push_back(core.get());
  }
}

}  // namespace quellix
