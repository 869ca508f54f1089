#include "audio/ListenerRegistry.h"

#include <algorithm>

#include "support/MainQueue.h"

namespace quellix {

void ListenerRegistry::add(AudioObjectID object, const AudioObjectPropertyAddress& address,
                           MainQueue* queue, AudioObjectPropertyListenerBlock listener) {
  std::lock_guard lock(mutex_);
  registrations_[keyOf(object, address)].push_back({queue, std::move(listener)});
}

bool ListenerRegistry::remove(AudioObjectID object, const AudioObjectPropertyAddress& address,
                              MainQueue* queue, const AudioObjectPropertyListenerBlock& listener) {
  std::lock_guard lock(mutex_);
  const auto found = registrations_.find(keyOf(object, address));
  if (found == registrations_.end()) {
    return false;
  }
  auto& list = found->second;
  const auto match = std::find_if(list.begin(), list.end(), [&](const Registration& r) {
    return r.queue == queue && r.listener == listener;
  });
  if (match == list.end()) {
    return false;
  }
  list.erase(match);
  if (list.empty()) {
    registrations_.erase(found);
  }
  return true;
}

void ListenerRegistry::fire(AudioObjectID object, const AudioObjectPropertyAddress& address) const {
  std::lock_guard lock(mutex_);
  const auto found = registrations_.find(keyOf(object, address));
  if (found == registrations_.end()) {
    return;
  }
  for (const auto& registration : found->second) {
    registration.queue->post(
        [listener = registration.listener, address] { (*listener)(1, &address); });
  }
}

std::size_t ListenerRegistry::count(AudioObjectID object,
                                    const AudioObjectPropertyAddress& address) const {
  std::lock_guard lock(mutex_);
  const auto found = registrations_.find(keyOf(object, address));
  return found == registrations_.end() ? 0 : found->second.size();
}

}  // namespace quellix
