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
cmake --build --preset release -j "$(nproc)" --target quellix
quellix=$PWD/build/release/src/quellix

if [ $# -gt 0 ]; then
  exec "$quellix" "$@"
fi

if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && pactl info >/dev/null 2>&1; then
  exec "$quellix"
fi

# No desktop here: make one of our own, with nothing of it left behind on exit.
source scripts/private-desktop.sh
runtime=$(mktemp -d)
pids=()
cleanup() {
  # Newest first: Quellix goes before the players, and they before the desktop they use.
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do kill "${pids[i]}" 2>/dev/null || true; done
  private_desktop_stop
  # What feeds the players (and anything else started here) goes too.
  pkill -P $$ 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$runtime"
}
trap cleanup EXIT
trap 'exit 0' INT TERM

private_desktop_runtime "$runtime"
export XDG_CONFIG_HOME=$runtime/config
mkdir -p "$XDG_CONFIG_HOME/quellix"
# A demo shows the panel, not the first-run welcome.
echo '{"onboardingCompleted": true}' >"$XDG_CONFIG_HOME/quellix/preferences.json"

if [ -z "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ]; then
  echo "No display; starting Xvfb."
  private_desktop_display
fi
[ -n "${DBUS_SESSION_BUS_ADDRESS:-}" ] || private_desktop_bus
if ! pactl info >/dev/null 2>&1; then
  echo "No sound server answers; starting a private PulseAudio with two test players."
  private_desktop_sound
  # Each plays until its standard input closes.
  play() {
    sleep infinity | env "${@:3}" mpv --no-config --really-quiet --no-video --ao=pulse \
      --audio-client-name="$1" --input-ipc-client=fd://0 \
      "av://lavfi:aevalsrc=0.5*sin(2*PI*$2*t)|0.5*sin(2*PI*$2*t):s=48000" >/dev/null &
    pids+=($!)
  }
  play "Test Tone A" 440 PULSE_PROP=application.id=org.example.ToneA
  play "Test Tone B" 660
fi

"$quellix" &
pids+=($!)
# With no tray on this display, the panel opens as a window of its own (class "quellix"; a
# one-pixel helper window of the same title does not count).
screenshot=/tmp/quellix-panel.png
panel_geometry() {
  xwininfo -root -children 2>/dev/null | awk '/"Quellix": \("quellix"/ {print $5; exit}'
}
panel_shown() { [ -n "$(panel_geometry)" ]; }
wait_for 10 panel_shown || true
sleep 2
import -window root -crop "$(panel_geometry)" +repage "$screenshot"
echo "Quellix is running on display $DISPLAY; the panel's screenshot is $screenshot."
echo "Press Ctrl+C to stop."
wait "${pids[-1]}"
