#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds Quellix and starts it. On a desktop, Quellix
# starts in the tray. Without a display or a sound server, it starts private ones (Xvfb, a
# private session bus, a private PulseAudio with two test players), shows the panel, saves a
# screenshot of it and keeps running until interrupted. Arguments, if any, go to quellix
# (for example ./run.sh --list).
set -euo pipefail
cd "$(dirname "$0")"
source scripts/setup.sh
quellix_install_packages
quellix_use_ccache

cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target quellix quellix-test-player
quellix=$PWD/build/release/src/quellix
player=$PWD/build/release/tests/quellix-test-player

if [ $# -gt 0 ]; then
  exec "$quellix" "$@"
fi

if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && pactl info >/dev/null 2>&1; then
  exec "$quellix"
fi

# No desktop here: make one of our own, with nothing of it left behind on exit.
runtime=$(mktemp -d)
pids=()
cleanup() {
  # Newest first: Quellix goes before the display and the servers it uses.
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do kill "${pids[i]}" 2>/dev/null || true; done
  # What feeds the players (and anything else started here) goes too.
  pkill -P $$ 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$runtime"
}
trap cleanup EXIT
trap 'exit 0' INT TERM

export XDG_RUNTIME_DIR=$runtime XDG_CONFIG_HOME=$runtime/config
mkdir -p "$XDG_CONFIG_HOME/quellix"
# A demo shows the panel, not the first-run welcome.
echo '{"onboardingCompleted": true}' >"$XDG_CONFIG_HOME/quellix/preferences.json"

if [ -z "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ]; then
  echo "No display; starting Xvfb."
  Xvfb :77 -screen 0 1280x800x24 -nolisten tcp >"$runtime/xvfb.log" 2>&1 &
  pids+=($!)
  export DISPLAY=:77
  for _ in $(seq 50); do [ -e /tmp/.X11-unix/X77 ] && break; sleep 0.1; done
fi
if [ -z "${DBUS_SESSION_BUS_ADDRESS:-}" ]; then
  eval "$(dbus-launch --sh-syntax)"
  pids+=("$DBUS_SESSION_BUS_PID")
fi
if ! pactl info >/dev/null 2>&1; then
  echo "No sound server answers; starting a private PulseAudio with two test players."
  export PULSE_RUNTIME_PATH=$runtime/pulse
  cat >"$runtime/quellix.pa" <<'PA'
load-module module-native-protocol-unix auth-anonymous=1
load-module module-null-sink sink_name=speakers
set-default-sink speakers
PA
  pulseaudio -n -F "$runtime/quellix.pa" --daemonize=no --exit-idle-time=-1 \
    --use-pid-file=no >"$runtime/server.log" 2>&1 &
  pids+=($!)
  for _ in $(seq 50); do pactl info >/dev/null 2>&1 && break; sleep 0.1; done
  sleep infinity | "$player" --name "Test Tone A" --app-id org.example.ToneA >/dev/null &
  pids+=($!)
  sleep infinity | "$player" --name "Test Tone B" --frequency 660 >/dev/null &
  pids+=($!)
fi

"$quellix" &
pids+=($!)
# With no tray on this display, the panel opens as a window of its own (class "quellix"; a
# one-pixel helper window of the same title does not count).
screenshot=/tmp/quellix-panel.png
panel_geometry() {
  xwininfo -root -children 2>/dev/null | awk '/"Quellix": \("quellix"/ {print $5; exit}'
}
for _ in $(seq 100); do
  [ -n "$(panel_geometry)" ] && break
  sleep 0.1
done
sleep 2
import -window root -crop "$(panel_geometry)" +repage "$screenshot"
echo "Quellix is running on display $DISPLAY; the panel's screenshot is $screenshot."
echo "Press Ctrl+C to stop."
wait "${pids[-1]}"
