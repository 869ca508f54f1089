// A small libpulse client for the integration tests: plays a sine tone and obeys commands on
// standard input, one per line: "cork", "uncork", "second" (open another stream with the same
// tone), "quit". Answers each command with "ok" on standard output once the server confirmed.
//
//   quellix-test-player [--name NAME] [--app-id ID] [--frequency HZ] [--amplitude A]
//                       [--fake-pids N --pid-base B] [--reconnect 1]
//
// --fake-pids opens N further streams, corked, each claiming the process id B + i, so one
// helper stands in for N audio processes.
//
// --reconnect 1 connects again when the server goes away, as often as it takes, and opens
// its streams anew once it is back, as a desktop application does.
#include <pulse/pulseaudio.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <numbers>
#include <string>
#include <vector>

namespace {

constexpr std::uint32_t kRate = 48000;
constexpr std::uint8_t kChannels = 2;

struct Tone {
  double frequency = 440.0;
  double amplitude = 0.5;
  double phase = 0.0;
};

const pa_buffer_attr kBufferAttributes{
    static_cast<std::uint32_t>(-1), static_cast<std::uint32_t>(kRate / 50 * 8),
    static_cast<std::uint32_t>(-1), static_cast<std::uint32_t>(-1), static_cast<std::uint32_t>(-1)};
constexpr pa_usec_t kReconnectDelay = 100 * PA_USEC_PER_MSEC;

struct Player {
  pa_threaded_mainloop* mainloop = nullptr;
  pa_context* context = nullptr;
  std::vector<pa_stream*> streams;
  std::vector<Tone> tones;
  Tone prototype;
  std::string name;
  std::string appID;
  bool reconnect = false;
  bool ready = false;  // connected at least once
};

pa_context* newContext(Player& player);
void write(pa_stream* stream, std::size_t bytes, void* userdata);

void reopenStreams(pa_mainloop_api* api, pa_time_event* event, const struct timeval*,
                   void* userdata);

void later(Player& player, pa_time_event_cb_t callback) {
  pa_mainloop_api* api = pa_threaded_mainloop_get_api(player.mainloop);
  timeval when{};
  pa_timeval_add(pa_gettimeofday(&when), kReconnectDelay);
  api->time_new(api, &when, callback, &player);
}

// A server that is still starting may refuse a stream (no sink yet): it is asked again.
void reopenedStreamState(pa_stream* stream, void* userdata) {
  auto* player = static_cast<Player*>(userdata);
  if (pa_stream_get_state(stream) == PA_STREAM_FAILED &&
      pa_context_get_state(player->context) == PA_CONTEXT_READY) {
    later(*player, reopenStreams);
  }
}

// On the main loop's thread: the streams that do not play, opened anew without waiting.
void reopenStreams(pa_mainloop_api* api, pa_time_event* event, const struct timeval*,
                   void* userdata) {
  if (event != nullptr) {
    api->time_free(event);
  }
  auto* player = static_cast<Player*>(userdata);
  if (pa_context_get_state(player->context) != PA_CONTEXT_READY) {
    return;
  }
  const pa_sample_spec spec{PA_SAMPLE_FLOAT32LE, kRate, kChannels};
  for (std::size_t i = 0; i < player->streams.size(); ++i) {
    pa_stream*& stream = player->streams[i];
    if (pa_stream_get_context(stream) == player->context &&
        PA_STREAM_IS_GOOD(pa_stream_get_state(stream))) {
      continue;
    }
    pa_stream_set_state_callback(stream, nullptr, nullptr);
    pa_stream_unref(stream);
    stream = pa_stream_new(player->context, ("tone " + std::to_string(i)).c_str(), &spec, nullptr);
    pa_stream_set_state_callback(stream, reopenedStreamState, player);
    pa_stream_set_write_callback(stream, write, &player->tones[i]);
    pa_stream_connect_playback(stream, nullptr, &kBufferAttributes, PA_STREAM_ADJUST_LATENCY,
                               nullptr, nullptr);
  }
}

void retry(pa_mainloop_api* api, pa_time_event* event, const struct timeval*, void* userdata) {
  api->time_free(event);
  auto* player = static_cast<Player*>(userdata);
  pa_context_unref(player->context);
  player->context = newContext(*player);
  pa_context_connect(player->context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr);
}

void contextState(pa_context* context, void* userdata) {
  auto* player = static_cast<Player*>(userdata);
  const auto state = pa_context_get_state(context);
  if (player->reconnect && player->ready) {
    if (state == PA_CONTEXT_READY) {
      reopenStreams(nullptr, nullptr, nullptr, player);
    } else if (!PA_CONTEXT_IS_GOOD(state)) {
      later(*player, retry);
    }
  }
  pa_threaded_mainloop_signal(player->mainloop, 0);
}

pa_context* newContext(Player& player) {
  pa_proplist* properties = pa_proplist_new();
  pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, player.name.c_str());
  if (!player.appID.empty())
    pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, player.appID.c_str());
  pa_context* context = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(player.mainloop),
                                                     player.name.c_str(), properties);
  pa_proplist_free(properties);
  pa_context_set_state_callback(context, contextState, &player);
  return context;
}

void streamState(pa_stream*, void* userdata) {
  pa_threaded_mainloop_signal(static_cast<Player*>(userdata)->mainloop, 0);
}

void write(pa_stream* stream, std::size_t bytes, void* userdata) {
  auto* tone = static_cast<Tone*>(userdata);
  std::vector<float> samples(bytes / sizeof(float));
  const double step = 2.0 * std::numbers::pi * tone->frequency / kRate;
  for (std::size_t i = 0; i + 1 < samples.size(); i += kChannels) {
    const auto value = static_cast<float>(tone->amplitude * std::sin(tone->phase));
    samples[i] = value;
    samples[i + 1] = value;
    tone->phase = std::fmod(tone->phase + step, 2.0 * std::numbers::pi);
  }
  pa_stream_write(stream, samples.data(), samples.size() * sizeof(float), nullptr, 0,
                  PA_SEEK_RELATIVE);
}

void done(pa_stream*, int, void* userdata) {
  pa_threaded_mainloop_signal(static_cast<Player*>(userdata)->mainloop, 0);
}

bool openStream(Player& player, long fakePID = 0) {
  const pa_sample_spec spec{PA_SAMPLE_FLOAT32LE, kRate, kChannels};
  pa_proplist* properties = pa_proplist_new();
  if (fakePID > 0) {
    pa_proplist_sets(properties, PA_PROP_APPLICATION_PROCESS_ID, std::to_string(fakePID).c_str());
  }
  pa_stream* stream = pa_stream_new_with_proplist(
      player.context, ("tone " + std::to_string(player.streams.size())).c_str(), &spec, nullptr,
      properties);
  pa_proplist_free(properties);
  if (stream == nullptr) {
    return false;
  }
  player.tones.push_back(player.prototype);
  pa_stream_set_state_callback(stream, streamState, &player);
  pa_stream_set_write_callback(stream, write, &player.tones.back());
  const auto flags = static_cast<pa_stream_flags_t>(
      PA_STREAM_ADJUST_LATENCY | (fakePID > 0 ? PA_STREAM_START_CORKED : PA_STREAM_NOFLAGS));
  pa_stream_connect_playback(stream, nullptr, &kBufferAttributes, flags, nullptr, nullptr);
  for (;;) {
    const auto state = pa_stream_get_state(stream);
    if (state == PA_STREAM_READY)
      break;
    if (!PA_STREAM_IS_GOOD(state))
      return false;
    pa_threaded_mainloop_wait(player.mainloop);
  }
  player.streams.push_back(stream);
  return true;
}

bool cork(Player& player, bool corked) {
  for (pa_stream* stream : player.streams) {
    pa_operation* operation = pa_stream_cork(stream, corked ? 1 : 0, done, &player);
    while (pa_operation_get_state(operation) == PA_OPERATION_RUNNING) {
      pa_threaded_mainloop_wait(player.mainloop);
    }
    pa_operation_unref(operation);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::string name = "Quellix Test Player";
  std::string appID;
  bool reconnect = false;
  long fakePIDs = 0;
  long pidBase = 0;
  Player player;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string option = argv[i];
    const char* value = argv[i + 1];
    if (option == "--name") {
      name = value;
    } else if (option == "--app-id") {
      appID = value;
    } else if (option == "--frequency") {
      player.prototype.frequency = std::atof(value);
    } else if (option == "--amplitude") {
      player.prototype.amplitude = std::atof(value);
    } else if (option == "--fake-pids") {
      fakePIDs = std::atol(value);
    } else if (option == "--pid-base") {
      pidBase = std::atol(value);
    } else if (option == "--reconnect") {
      reconnect = std::atol(value) != 0;
    }
  }

  player.mainloop = pa_threaded_mainloop_new();
  player.name = name;
  player.appID = appID;
  player.reconnect = reconnect;
  player.context = newContext(player);
  pa_threaded_mainloop_lock(player.mainloop);
  pa_threaded_mainloop_start(player.mainloop);
  pa_context_connect(player.context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr);
  for (;;) {
    const auto state = pa_context_get_state(player.context);
    if (state == PA_CONTEXT_READY)
      break;
    if (!PA_CONTEXT_IS_GOOD(state)) {
      std::fprintf(stderr, "connect failed: %s\n", pa_strerror(pa_context_errno(player.context)));
      return 1;
    }
    pa_threaded_mainloop_wait(player.mainloop);
  }
  // Streams are never moved in memory: each write callback holds its tone.
  player.tones.reserve(static_cast<std::size_t>(fakePIDs) + 16);
  bool opened = openStream(player);
  for (long i = 0; opened && i < fakePIDs; ++i) {
    opened = openStream(player, pidBase + i);
  }
  player.ready = true;
  pa_threaded_mainloop_unlock(player.mainloop);
  if (!opened) {
    std::fprintf(stderr, "stream failed\n");
    return 1;
  }
  std::cout << "ok" << std::endl;

  std::string command;
  while (std::getline(std::cin, command)) {
    if (command == "quit")
      break;
    pa_threaded_mainloop_lock(player.mainloop);
    bool succeeded = false;
    if (command == "cork")
      succeeded = cork(player, true);
    if (command == "uncork")
      succeeded = cork(player, false);
    if (command == "second")
      succeeded = openStream(player);
    pa_threaded_mainloop_unlock(player.mainloop);
    std::cout << (succeeded ? "ok" : "error") << std::endl;
  }
  pa_threaded_mainloop_stop(player.mainloop);
  return 0;
}
