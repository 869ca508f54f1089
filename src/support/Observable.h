#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace quellix {

// Ends an observation when destroyed (or when cancel() is called).
class Subscription {
 public:
  Subscription() = default;
  explicit Subscription(std::function<void()> cancel) : cancel_(std::move(cancel)) {}
  Subscription(Subscription&& other) noexcept : cancel_(std::exchange(other.cancel_, {})) {}
  Subscription& operator=(Subscription&& other) noexcept;
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;
  ~Subscription() { cancel(); }

  void cancel();

 private:
  std::function<void()> cancel_;
};

// Who is interested in one observable value: lasting observers, and one-shot trackers set up
// by withObservationTracking. Main thread only.
class ObservationRegistrar {
 public:
  ObservationRegistrar();
  ObservationRegistrar(const ObservationRegistrar&) = delete;
  ObservationRegistrar& operator=(const ObservationRegistrar&) = delete;

  // Tells the tracking scope running on this thread, if any, that this value was read.
  void access() const;
  void notify() const;
  [[nodiscard]] Subscription observe(std::function<void()> onChange) const;

  struct Tracker;
  struct Core;

 private:
  std::shared_ptr<Core> core_;
};

// Runs `apply`, notes every observable it read, and calls `onChange` once, at the first
// change of any of them. This is how a view learns when to render again.
void withObservationTracking(const std::function<void()>& apply, std::function<void()> onChange);

// A value that tells its observers when it changes, and only then.
template <typename T>
class Observable {
 public:
  Observable() = default;
  explicit Observable(T initial) : value_(std::move(initial)) {}
  Observable(const Observable&) = delete;
  Observable& operator=(const Observable&) = delete;

  const T& get() const {
    registrar_.access();
    return value_;
  }
  const T& operator()() const { return get(); }

  // Returns whether the value changed (and observers were told).
  bool set(T value) {
    if (value_ == value) {
      return false;
    }
    value_ = std::move(value);
    registrar_.notify();
    return true;
  }

  // Edits a copy and assigns it, so an edit that changes nothing notifies nobody.
  template <typename Edit>
  bool modify(Edit&& edit) {
    T copy = value_;
    std::forward<Edit>(edit)(copy);
    return set(std::move(copy));
  }

  [[nodiscard]] Subscription observe(std::function<void()> onChange) const {
    return registrar_.observe(std::move(onChange));
  }

 private:
  T value_{};
  ObservationRegistrar registrar_;
};

}  // namespace quellix
