#include "audio/pulse/PacedMainloop.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <type_traits>

namespace quellix {

struct PacedMainloop::IOEvent {
  using Opaque = pa_io_event;
  using Destroy = pa_io_event_destroy_cb_t;

  PacedMainloop* loop;
  int fd;
  pa_io_event_flags_t events;
  pa_io_event_cb_t callback;
  void* userdata;
  pa_io_event_destroy_cb_t destroy = nullptr;
  bool dead = false;
  bool socket = false;
};

struct PacedMainloop::TimeEvent {
  using Opaque = pa_time_event;
  using Destroy = pa_time_event_destroy_cb_t;

  PacedMainloop* loop;
  std::int64_t whenUs;  // monotonic; negative: disabled
  pa_time_event_cb_t callback;
  void* userdata;
  pa_time_event_destroy_cb_t destroy = nullptr;
  bool dead = false;
};

struct PacedMainloop::DeferEvent {
  using Opaque = pa_defer_event;
  using Destroy = pa_defer_event_destroy_cb_t;

  PacedMainloop* loop;
  bool enabled;
  pa_defer_event_cb_t callback;
  void* userdata;
  pa_defer_event_destroy_cb_t destroy = nullptr;
  bool dead = false;
};

namespace {

// libpulse marks a time given on the monotonic clock with this bit of tv_usec; every other
// time it hands a foreign main loop is wall-clock time.
constexpr long kMonotonicFlag = 1L << 30;
constexpr std::int64_t kMicrosecondsPerSecond = 1000000;
constexpr int kMaxRoundsPerTick = 64;

std::int64_t clockUs(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return static_cast<std::int64_t>(now.tv_sec) * kMicrosecondsPerSecond + now.tv_nsec / 1000;
}

std::int64_t monotonicUs() {
  return clockUs(CLOCK_MONOTONIC);
}

std::int64_t monotonicDeadline(const struct timeval* when) {
  if (when == nullptr) {
    return -1;
  }
  if ((when->tv_usec & kMonotonicFlag) != 0) {
    return static_cast<std::int64_t>(when->tv_sec) * kMicrosecondsPerSecond +
           (when->tv_usec & ~kMonotonicFlag);
  }
  const std::int64_t wallUs =
      static_cast<std::int64_t>(when->tv_sec) * kMicrosecondsPerSecond + when->tv_usec;
  return monotonicUs() + (wallUs - clockUs(CLOCK_REALTIME));
}

timespec durationSpec(std::int64_t us) {
  us = std::max<std::int64_t>(us, 0);
  return {static_cast<time_t>(us / kMicrosecondsPerSecond),
          static_cast<long>(us % kMicrosecondsPerSecond) * 1000};
}

short pollFlags(pa_io_event_flags_t events) {
  return static_cast<short>(((events & PA_IO_EVENT_INPUT) != 0 ? POLLIN : 0) |
                            ((events & PA_IO_EVENT_OUTPUT) != 0 ? POLLOUT : 0) |
                            ((events & PA_IO_EVENT_HANGUP) != 0 ? POLLHUP : 0) |
                            ((events & PA_IO_EVENT_ERROR) != 0 ? POLLERR : 0));
}

pa_io_event_flags_t eventFlags(short revents) {
  return static_cast<pa_io_event_flags_t>(
      ((revents & POLLIN) != 0 ? PA_IO_EVENT_INPUT : 0) |
      ((revents & POLLOUT) != 0 ? PA_IO_EVENT_OUTPUT : 0) |
      ((revents & POLLHUP) != 0 ? PA_IO_EVENT_HANGUP : 0) |
      ((revents & (POLLERR | POLLNVAL)) != 0 ? PA_IO_EVENT_ERROR : 0));
}

PacedMainloop* loopOf(pa_mainloop_api* api) {
  return static_cast<PacedMainloop*>(api->userdata);
}

template <typename Event>
Event* eventOf(void* event) {
  return reinterpret_cast<Event*>(event);
}

}  // namespace

PacedMainloop::PacedMainloop() : wakeFD_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  api_.userdata = this;
  api_.io_new = &PacedMainloop::ioNew;
  api_.io_enable = &PacedMainloop::ioEnable;
  api_.io_free = &PacedMainloop::freeEvent<IOEvent>;
  api_.io_set_destroy = &PacedMainloop::setDestroy<IOEvent>;
  api_.time_new = &PacedMainloop::timeNew;
  api_.time_restart = &PacedMainloop::timeRestart;
  api_.time_free = &PacedMainloop::freeEvent<TimeEvent>;
  api_.time_set_destroy = &PacedMainloop::setDestroy<TimeEvent>;
  api_.defer_new = &PacedMainloop::deferNew;
  api_.defer_enable = &PacedMainloop::deferEnable;
  api_.defer_free = &PacedMainloop::freeEvent<DeferEvent>;
  api_.defer_set_destroy = &PacedMainloop::setDestroy<DeferEvent>;
  api_.quit = &PacedMainloop::quit;
  pollSet_.reserve(16);
  polledEvents_.reserve(16);
}

PacedMainloop::~PacedMainloop() {
  stop();
  // What libpulse did not free is released the way freed events are.
  auto markDead = [](auto& events) {
    for (auto& event : events) {
      event->dead = true;
    }
  };
  markDead(ioEvents_);
  markDead(timeEvents_);
  markDead(deferEvents_);
  anyDead_ = true;
  reapDeadEvents();
  if (wakeFD_ >= 0) {
    ::close(wakeFD_);
  }
}

void PacedMainloop::start(const std::string& threadName, std::function<void()> setUp,
                          std::function<void()> onTick) {
  onTick_ = std::move(onTick);
  thread_ = std::thread([this, threadName, setUp = std::move(setUp)] {
    ::pthread_setname_np(::pthread_self(), threadName.substr(0, 15).c_str());
    run(setUp);
  });
}

void PacedMainloop::setPaced(std::chrono::microseconds tick) {
  tick_ = tick;
  nextTickUs_ = monotonicUs() + tick.count();
}

void PacedMainloop::stop() {
  stopping_.store(true);
  const std::uint64_t one = 1;
  if (wakeFD_ >= 0) {
    [[maybe_unused]] const auto written = ::write(wakeFD_, &one, sizeof(one));
  }
  if (thread_.joinable()) {
    thread_.join();
  }
}

void PacedMainloop::run(const std::function<void()>& setUp) {
  setUp();
  while (iterate()) {
  }
}

bool PacedMainloop::iterate() {
  if (stopping_.load(std::memory_order_relaxed)) {
    return false;
  }
  reapDeadEvents();
  const bool deferred = anyDeferEnabled();
  const std::int64_t now = monotonicUs();
  const std::int64_t nextTimer = nextTimeEventUs();
  if (tick_.count() > 0 && !deferred) {
    // Sleep until the tick or a timer; only a stop wakes the thread earlier.
    const std::int64_t until = nextTimer >= 0 ? std::min(nextTickUs_, nextTimer) : nextTickUs_;
    if (until > now) {
      pollfd wake{wakeFD_, POLLIN, 0};
      const timespec timeout = durationSpec(until - now);
      ::ppoll(&wake, 1, &timeout, nullptr);
    }
    // libpulse reads a socket one piece per readiness (a server without a shared ring sends
    // everything through it), so a tick goes on handling until no socket is ready: the
    // second look is a system call for nothing when the ring carried it all.
    for (int round = 0; round < kMaxRoundsPerTick; ++round) {
      if (stopping_.load(std::memory_order_relaxed)) {
        return false;
      }
      if (!dispatchIO(0, false)) {
        break;
      }
      dispatchDeferEvents();
    }
  } else {
    int timeoutMs = -1;
    if (deferred) {
      timeoutMs = 0;
    } else if (nextTimer >= 0) {
      timeoutMs = static_cast<int>(std::max<std::int64_t>(nextTimer - now + 999, 0) / 1000);
    }
    dispatchIO(timeoutMs, true);
  }
  if (stopping_.load(std::memory_order_relaxed)) {
    return false;
  }
  dispatchTimeEvents(monotonicUs());
  dispatchDeferEvents();
  if (tick_.count() > 0) {
    const std::int64_t after = monotonicUs();
    if (after >= nextTickUs_) {
      nextTickUs_ += tick_.count();
      if (nextTickUs_ <= after) {
        nextTickUs_ = after + tick_.count();
      }
      if (onTick_) {
        onTick_();
      }
    }
  }
  return true;
}

bool PacedMainloop::dispatchIO(int timeoutMs, bool withWake) {
  if (pollSetChanged_) {
    pollSet_.clear();
    polledEvents_.clear();
    pollSet_.push_back({wakeFD_, POLLIN, 0});
    polledEvents_.push_back(nullptr);
    for (const auto& event : ioEvents_) {
      if (!event->dead && event->events != PA_IO_EVENT_NULL) {
        pollSet_.push_back({event->fd, pollFlags(event->events), 0});
        polledEvents_.push_back(event.get());
      }
    }
    pollSetChanged_ = false;
  }
  // Paced, a stop was looked at just before; the wake-up descriptor is left out so that a
  // pending stop cannot make the poll return at once forever.
  pollfd* first = withWake ? pollSet_.data() : pollSet_.data() + 1;
  const auto count = static_cast<nfds_t>(withWake ? pollSet_.size() : pollSet_.size() - 1);
  const int ready = ::poll(first, count, timeoutMs);
  if (ready <= 0) {
    return false;
  }
  bool socketReady = false;
  if (withWake && pollSet_[0].revents != 0) {
    std::uint64_t value = 0;
    [[maybe_unused]] const auto read = ::read(wakeFD_, &value, sizeof(value));
  }
  // Callbacks may add, free or re-arm events; freed ones stay allocated until the next reap,
  // and the poll set is only rebuilt then.
  for (std::size_t i = 1; i < pollSet_.size(); ++i) {
    IOEvent* event = polledEvents_[i];
    const short revents = pollSet_[i].revents;
    if (revents == 0 || event->dead) {
      continue;
    }
    pollSet_[i].revents = 0;
    socketReady = socketReady || event->socket;
    event->callback(&api_, reinterpret_cast<pa_io_event*>(event), event->fd, eventFlags(revents),
                    event->userdata);
  }
  return socketReady;
}

void PacedMainloop::dispatchTimeEvents(std::int64_t nowUs) {
  const std::size_t count = timeEvents_.size();
  for (std::size_t i = 0; i < count; ++i) {
    TimeEvent* event = timeEvents_[i].get();
    if (event->dead || event->whenUs < 0 || event->whenUs > nowUs) {
      continue;
    }
    const std::int64_t wallUs = clockUs(CLOCK_REALTIME) + (event->whenUs - nowUs);
    const timeval when{static_cast<time_t>(wallUs / kMicrosecondsPerSecond),
                       static_cast<suseconds_t>(wallUs % kMicrosecondsPerSecond)};
    event->whenUs = -1;
    event->callback(&api_, reinterpret_cast<pa_time_event*>(event), &when, event->userdata);
  }
}

void PacedMainloop::dispatchDeferEvents() {
  const std::size_t count = deferEvents_.size();
  for (std::size_t i = 0; i < count; ++i) {
    DeferEvent* event = deferEvents_[i].get();
    if (!event->dead && event->enabled) {
      event->callback(&api_, reinterpret_cast<pa_defer_event*>(event), event->userdata);
    }
  }
}

void PacedMainloop::reapDeadEvents() {
  if (!anyDead_) {
    return;
  }
  anyDead_ = false;
  auto reap = [this](auto& events) {
    for (auto& event : events) {
      using Opaque = typename std::decay_t<decltype(*event)>::Opaque;
      if (event->dead && event->destroy != nullptr) {
        event->destroy(&api_, reinterpret_cast<Opaque*>(event.get()), event->userdata);
      }
    }
    std::erase_if(events, [](const auto& event) { return event->dead; });
  };
  reap(ioEvents_);
  reap(timeEvents_);
  reap(deferEvents_);
  pollSetChanged_ = true;
}

std::int64_t PacedMainloop::nextTimeEventUs() const {
  std::int64_t next = -1;
  for (const auto& event : timeEvents_) {
    if (!event->dead && event->whenUs >= 0 && (next < 0 || event->whenUs < next)) {
      next = event->whenUs;
    }
  }
  return next;
}

bool PacedMainloop::anyDeferEnabled() const {
  return std::any_of(deferEvents_.begin(), deferEvents_.end(),
                     [](const auto& event) { return event->enabled && !event->dead; });
}

pa_io_event* PacedMainloop::ioNew(pa_mainloop_api* api, int fd, pa_io_event_flags_t events,
                                  pa_io_event_cb_t callback, void* userdata) {
  PacedMainloop* loop = loopOf(api);
  struct stat status {};
  const bool socket = ::fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode);
  loop->ioEvents_.push_back(std::make_unique<IOEvent>(
      IOEvent{loop, fd, events, callback, userdata, nullptr, false, socket}));
  loop->pollSetChanged_ = true;
  return reinterpret_cast<pa_io_event*>(loop->ioEvents_.back().get());
}

void PacedMainloop::ioEnable(pa_io_event* opaque, pa_io_event_flags_t events) {
  IOEvent* event = eventOf<IOEvent>(opaque);
  if (event->events != events) {
    event->events = events;
    event->loop->pollSetChanged_ = true;
  }
}

pa_time_event* PacedMainloop::timeNew(pa_mainloop_api* api, const struct timeval* when,
                                      pa_time_event_cb_t callback, void* userdata) {
  PacedMainloop* loop = loopOf(api);
  loop->timeEvents_.push_back(
      std::make_unique<TimeEvent>(TimeEvent{loop, monotonicDeadline(when), callback, userdata}));
  return reinterpret_cast<pa_time_event*>(loop->timeEvents_.back().get());
}

void PacedMainloop::timeRestart(pa_time_event* opaque, const struct timeval* when) {
  eventOf<TimeEvent>(opaque)->whenUs = monotonicDeadline(when);
}

pa_defer_event* PacedMainloop::deferNew(pa_mainloop_api* api, pa_defer_event_cb_t callback,
                                        void* userdata) {
  PacedMainloop* loop = loopOf(api);
  loop->deferEvents_.push_back(
      std::make_unique<DeferEvent>(DeferEvent{loop, true, callback, userdata}));
  return reinterpret_cast<pa_defer_event*>(loop->deferEvents_.back().get());
}

void PacedMainloop::deferEnable(pa_defer_event* opaque, int enabled) {
  eventOf<DeferEvent>(opaque)->enabled = enabled != 0;
}

template <typename Event>
void PacedMainloop::freeEvent(typename Event::Opaque* opaque) {
  // Freed events stay allocated until the next reap: a dispatch under way may still hold them.
  Event* event = eventOf<Event>(opaque);
  event->dead = true;
  event->loop->anyDead_ = true;
}

template <typename Event>
void PacedMainloop::setDestroy(typename Event::Opaque* opaque, typename Event::Destroy callback) {
  eventOf<Event>(opaque)->destroy = callback;
}

void PacedMainloop::quit(pa_mainloop_api* api, int) {
  loopOf(api)->stopping_.store(true);
}

}  // namespace quellix
