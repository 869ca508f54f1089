#pragma once

#include <pulse/mainloop-api.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

struct pollfd;

namespace quellix {

// A libpulse main loop for one IO thread that, once paced, wakes on its own clock and handles
// everything the server sent since, instead of once per message. A tap's monitor arrives in
// the fragments its player asks for and each playback request is a message of its own:
// woken per message, the thread would switch context several hundred times a second.
//
// Single-threaded: the API it lends libpulse may be used only on its thread, or by anyone
// once the thread has stopped.
class PacedMainloop {
 public:
  PacedMainloop();
  ~PacedMainloop();
  PacedMainloop(const PacedMainloop&) = delete;
  PacedMainloop& operator=(const PacedMainloop&) = delete;

  pa_mainloop_api* api() { return &api_; }

  // Runs `setUp` on a new thread named `threadName`, then the loop. Once paced, `onTick` runs
  // after each tick's handling.
  void start(const std::string& threadName, std::function<void()> setUp,
             std::function<void()> onTick);
  // From the loop's thread: from now on wake every `tick` rather than at each message.
  void setPaced(std::chrono::microseconds tick);
  // From any thread; returns when the thread has ended.
  void stop();

  struct IOEvent;
  struct TimeEvent;
  struct DeferEvent;

 private:
  void run(const std::function<void()>& setUp);
  bool iterate();
  // Whether a socket was ready: libpulse reads a socket one piece per readiness, so it may
  // hold more. A shared ring's notifications are handled whole.
  bool dispatchIO(int timeoutMs, bool withWake);
  void dispatchTimeEvents(std::int64_t nowUs);
  void dispatchDeferEvents();
  void reapDeadEvents();
  std::int64_t nextTimeEventUs() const;
  bool anyDeferEnabled() const;

  static pa_io_event* ioNew(pa_mainloop_api* api, int fd, pa_io_event_flags_t events,
                            pa_io_event_cb_t callback, void* userdata);
  static void ioEnable(pa_io_event* event, pa_io_event_flags_t events);
  static pa_time_event* timeNew(pa_mainloop_api* api, const struct timeval* when,
                                pa_time_event_cb_t callback, void* userdata);
  static void timeRestart(pa_time_event* event, const struct timeval* when);
  static pa_defer_event* deferNew(pa_mainloop_api* api, pa_defer_event_cb_t callback,
                                  void* userdata);
  static void deferEnable(pa_defer_event* event, int enabled);
  template <typename Event>
  static void freeEvent(typename Event::Opaque* event);
  template <typename Event>
  static void setDestroy(typename Event::Opaque* event, typename Event::Destroy callback);
  static void quit(pa_mainloop_api* api, int retval);

  pa_mainloop_api api_{};
  int wakeFD_ = -1;
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  std::function<void()> onTick_;
  std::chrono::microseconds tick_{0};
  std::int64_t nextTickUs_ = 0;
  std::vector<std::unique_ptr<IOEvent>> ioEvents_;
  std::vector<std::unique_ptr<TimeEvent>> timeEvents_;
  std::vector<std::unique_ptr<DeferEvent>> deferEvents_;
  bool pollSetChanged_ = true;
  bool anyDead_ = false;
  std::vector<pollfd> pollSet_;
  std::vector<IOEvent*> polledEvents_;
};

}  // namespace quellix
