#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds Quellix and starts it. Until the panel exists,
# starting it means the list mode against the desktop's sound server (or, when none answers,
# a private one with two test players), and showing the lines it wrote. Arguments, if any,
# go to quellix instead (for example ./run.sh --taps).
set -euo pipefail
cd "$(dirname "$0")"
source scripts/setup.sh
quellix_install_packages

cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target quellix quellix-test-player
quellix=./build/release/src/quellix

if [ $# -gt 0 ]; then
  exec "$quellix" "$@"
fi

cleanup() { :; }
if ! pactl info >/dev/null 2>&1; then
  echo "No sound server answers; starting a private PulseAudio with two test players."
  runtime=$(mktemp -d)
  export XDG_RUNTIME_DIR=$runtime PULSE_RUNTIME_PATH=$runtime/pulse
  cat > "$runtime/quellix.pa" <<'PA'
load-module module-native-protocol-unix auth-anonymous=1
load-module module-null-sink sink_name=speakers
set-default-sink speakers
PA
  pulseaudio -n -F "$runtime/quellix.pa" --daemonize=no --exit-idle-time=-1 \
    --use-pid-file=no >"$runtime/server.log" 2>&1 &
  server=$!
  for _ in $(seq 50); do pactl info >/dev/null 2>&1 && break; sleep 0.1; done
  player=./build/release/tests/quellix-test-player
  sleep 30 | "$player" --name "Test Tone A" --app-id org.example.ToneA >/dev/null &
  sleep 30 | "$player" --name "Test Tone B" --frequency 660 >/dev/null &
  sleep 1
  cleanup() {
    pkill -P $$ -f quellix-test-player 2>/dev/null || true
    kill "$server" 2>/dev/null || true
    rm -rf "$runtime"
  }
fi
trap cleanup EXIT

log=/tmp/quellix-spike.log
before=$( [ -f "$log" ] && wc -c <"$log" || echo 0)
status=0
"$quellix" --list 2>/dev/null || status=$?
echo "quellix --list wrote (exit status $status):"
tail -c +"$((before + 1))" "$log"
