#include "audio/pulse/TapGuard.h"

#include <fcntl.h>
#include <pulse/pulseaudio.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "audio/pulse/PulseRecords.h"
#include "support/BuildInfo.h"
#include "support/Logger.h"

namespace quellix::TapGuard {
namespace {

constexpr auto kSweepTimeout = std::chrono::seconds(5);
constexpr const char* kProcessName = "quellix-guard";
// Sinks, sink inputs and the server's defaults.
constexpr int kListReplies = 3;

// One connection on a plain main loop, run until what is asked of it is done or the time is up.
struct Sweep {
  pa_mainloop* loop = nullptr;
  pa_context* context = nullptr;
  pulse::PulseModel model;
  int pending = 0;
  bool timedOut = false;

  // Runs the loop until `done` holds; false when the connection failed or the time ran out.
  template <typename Condition>
  bool runUntil(Condition done) {
    while (!done()) {
      const auto state = pa_context_get_state(context);
      if (timedOut || !PA_CONTEXT_IS_GOOD(state) || pa_mainloop_iterate(loop, 1, nullptr) < 0) {
        return false;
      }
    }
    return true;
  }
};

void onDeadline(pa_mainloop_api*, pa_time_event*, const struct timeval*, void* userdata) {
  static_cast<Sweep*>(userdata)->timedOut = true;
}

void onFinished(pa_context*, int, void* userdata) {
  --static_cast<Sweep*>(userdata)->pending;
}

template <typename Info, auto Copy, auto Apply>
void onList(pa_context*, const Info* info, int eol, void* userdata) {
  auto* sweep = static_cast<Sweep*>(userdata);
  if (eol != 0) {
    --sweep->pending;
  } else if (info != nullptr) {
    (sweep->model.*Apply)(Copy(*info));
  }
}

void onServerInfo(pa_context*, const pa_server_info* info, void* userdata) {
  auto* sweep = static_cast<Sweep*>(userdata);
  if (info != nullptr && info->default_sink_name != nullptr) {
    sweep->model.setDefaultSinkName(info->default_sink_name);
  }
  --sweep->pending;
}

std::optional<int> sweepOn(Sweep& sweep, const std::optional<pulse::TapOwner>& ended,
                           const std::string& server, const Logger& logger) {
  if (pa_context_connect(sweep.context, server.empty() ? nullptr : server.c_str(),
                         PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0 ||
      !sweep.runUntil([&] { return pa_context_get_state(sweep.context) == PA_CONTEXT_READY; })) {
    return std::nullopt;
  }
  sweep.pending = kListReplies;
  using pulse::PulseModel;
  pa_operation* lists[] = {
      pa_context_get_sink_info_list(
          sweep.context, &onList<pa_sink_info, pulse::copySink, &PulseModel::applySink>, &sweep),
      pa_context_get_sink_input_info_list(
          sweep.context,
          &onList<pa_sink_input_info, pulse::copySinkInput, &PulseModel::applySinkInput>, &sweep),
      pa_context_get_server_info(sweep.context, &onServerInfo, &sweep)};
  const bool listed = sweep.runUntil([&] { return sweep.pending <= 0; });
  for (pa_operation* operation : lists) {
    if (operation != nullptr) {
      pa_operation_unref(operation);
    }
  }
  if (!listed) {
    return std::nullopt;
  }
  const auto snapshot = sweep.model.snapshot(true);
  std::vector<pa_operation*> operations;
  int removed = 0;
  for (const auto& tap : snapshot.tapSinks) {
    if (!pulse::isLeftover(tap, ended)) {
      continue;
    }
    auto issued = pulse::removeLeftover(sweep.context, tap, snapshot.sinkInputs,
                                        sweep.model.defaultSinkName(), &onFinished, &sweep, logger);
    sweep.pending += static_cast<int>(issued.size());
    operations.insert(operations.end(), issued.begin(), issued.end());
    ++removed;
  }
  sweep.runUntil([&] { return sweep.pending <= 0; });
  for (pa_operation* operation : operations) {
    pa_operation_unref(operation);
  }
  return removed;
}

[[noreturn]] void guard(int watched, const pulse::TapOwner& owner,
                        const std::shared_ptr<LogSink>& logs) {
  // Out of the program's session and process group, so that a signal meant for the program
  // (Ctrl-C, a hang-up) leaves the guard to clean up after it.
  ::setsid();
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE}) {
    ::signal(number, SIG_IGN);
  }
  ::prctl(PR_SET_NAME, kProcessName);
  if (const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC); null >= 0) {
    ::dup2(null, STDIN_FILENO);
    ::dup2(null, STDOUT_FILENO);
    ::close(null);
  }
  // Nothing of the program stays open here but standard error: a descriptor held by the
  // guard would outlive the program (a socket, the other end of a pipe).
  if (watched > STDERR_FILENO + 1) {
    ::close_range(STDERR_FILENO + 1, static_cast<unsigned>(watched) - 1, 0);
  }
  ::close_range(static_cast<unsigned>(watched) + 1, UINT_MAX, 0);

  // The write end lives in the program only; the read sees its end when the program's last
  // descriptor closes, however it ended.
  char byte = 0;
  for (;;) {
    const ssize_t got = ::read(watched, &byte, 1);
    if (got == 0 || (got < 0 && errno != EINTR)) {
      break;
    }
  }
  ::close(watched);
  sweep(owner, {}, std::chrono::duration_cast<std::chrono::milliseconds>(kSweepTimeout), logs);
  ::_exit(0);
}

}  // namespace

std::optional<int> sweep(const std::optional<pulse::TapOwner>& ended, const std::string& server,
                         std::chrono::milliseconds timeout, std::shared_ptr<LogSink> logs) {
  Sweep sweep;
  sweep.loop = pa_mainloop_new();
  pa_mainloop_api* api = pa_mainloop_get_api(sweep.loop);
  pa_proplist* properties = pa_proplist_new();
  pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, "Quellix");
  pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, build::kBundleIdentifier);
  sweep.context = pa_context_new_with_proplist(api, kProcessName, properties);
  pa_proplist_free(properties);
  timeval deadline{};
  pa_gettimeofday(&deadline);
  pa_timeval_add(&deadline, static_cast<pa_usec_t>(timeout.count()) * PA_USEC_PER_MSEC);
  pa_time_event* timer = api->time_new(api, &deadline, &onDeadline, &sweep);
  const auto removed = sweepOn(sweep, ended, server, Logger(std::move(logs), "TapGuard"));
  api->time_free(timer);
  pa_context_disconnect(sweep.context);
  pa_context_unref(sweep.context);
  pa_mainloop_free(sweep.loop);
  return removed;
}

std::optional<pid_t> start(const std::shared_ptr<LogSink>& logs) {
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    return std::nullopt;
  }
  const pulse::TapOwner owner = pulse::currentProcess();
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(ends[1]);
    guard(ends[0], owner, logs);
  }
  ::close(ends[0]);
  if (child < 0) {
    ::close(ends[1]);
    return std::nullopt;
  }
  // ends[1] stays open, unused, for the rest of the program's life; it closes on exec of
  // anything the program starts.
  return child;
}

}  // namespace quellix::TapGuard
