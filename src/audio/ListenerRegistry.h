#pragma once

#include <map>
#include <mutex>
#include <tuple>
#include <vector>

#include "audio/AudioHardware.h"

namespace quellix {

// Property listeners of a backend. Firing posts each call to the queue the listener was
// registered with, so listeners never run on the thread that fires. Thread-safe.
class ListenerRegistry {
 public:
  void add(AudioObjectID object, const AudioObjectPropertyAddress& address, MainQueue* queue,
           AudioObjectPropertyListenerBlock listener);
  // False when no registration with this queue and handler object exists.
  bool remove(AudioObjectID object, const AudioObjectPropertyAddress& address, MainQueue* queue,
              const AudioObjectPropertyListenerBlock& listener);
  void fire(AudioObjectID object, const AudioObjectPropertyAddress& address) const;
  std::size_t count(AudioObjectID object, const AudioObjectPropertyAddress& address) const;

 private:
  struct Registration {
    MainQueue* queue;
    AudioObjectPropertyListenerBlock listener;
  };
  using Key = std::tuple<AudioObjectID, AudioObjectPropertySelector, AudioObjectPropertyScope,
                         AudioObjectPropertyElement>;
  static Key keyOf(AudioObjectID object, const AudioObjectPropertyAddress& address) {
    return {object, address.mSelector, address.mScope, address.mElement};
  }

  mutable std::mutex mutex_;
  std::map<Key, std::vector<Registration>> registrations_;
};

}  // namespace quellix
