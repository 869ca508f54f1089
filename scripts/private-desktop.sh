# A desktop of a script's own, sourced by run.sh on a machine without one and by the packaging
# tests, which must not touch the machine's: a headless display, a session bus, and a
# PulseAudio whose one null sink "speakers" is the default. Each part starts on request, after
# private_desktop_runtime; private_desktop_stop ends everything started, newest first.

private_desktop_pids=()

# Polls a command until it succeeds or the seconds run out.
wait_for() {
  local deadline=$(($(date +%s%N) / 1000000 + $1 * 1000))
  shift
  until "$@"; do
    [ "$(($(date +%s%N) / 1000000))" -lt "$deadline" ] || return 1
    sleep 0.1
  done
}

# Sockets and logs go to this folder, which becomes XDG_RUNTIME_DIR.
private_desktop_runtime() {
  mkdir -p "$1"
  chmod 0700 "$1"
  export XDG_RUNTIME_DIR=$1
}

# Xvfb picks a free display itself and names it, so parallel runs never collide.
private_desktop_display() {
  local named=$XDG_RUNTIME_DIR/display
  Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp 3>"$named" \
    >"$XDG_RUNTIME_DIR/xvfb.log" 2>&1 &
  private_desktop_pids+=($!)
  wait_for 10 test -s "$named" || { echo "Xvfb did not start" >&2 && return 1; }
  DISPLAY=:$(head -n 1 "$named")
  export DISPLAY
  unset WAYLAND_DISPLAY
}

private_desktop_bus() {
  export DBUS_SESSION_BUS_ADDRESS=unix:path=$XDG_RUNTIME_DIR/bus
  dbus-daemon --session --address="$DBUS_SESSION_BUS_ADDRESS" --nofork --nopidfile \
    >"$XDG_RUNTIME_DIR/dbus.log" 2>&1 &
  private_desktop_pids+=($!)
  wait_for 10 test -S "$XDG_RUNTIME_DIR/bus" || { echo "no session bus" >&2 && return 1; }
}

private_desktop_sound() {
  export PULSE_RUNTIME_PATH=$XDG_RUNTIME_DIR/pulse
  unset PULSE_SERVER
  cat >"$XDG_RUNTIME_DIR/desktop.pa" <<'PA'
load-module module-native-protocol-unix auth-anonymous=1
load-module module-null-sink sink_name=speakers
set-default-sink speakers
PA
  pulseaudio -n -F "$XDG_RUNTIME_DIR/desktop.pa" --daemonize=no --exit-idle-time=-1 \
    --use-pid-file=no >"$XDG_RUNTIME_DIR/pulse.log" 2>&1 &
  private_desktop_pids+=($!)
  wait_for 30 pactl info >/dev/null 2>&1 || { echo "no sound server" >&2 && return 1; }
}

private_desktop_stop() {
  local i
  for ((i = ${#private_desktop_pids[@]} - 1; i >= 0; i--)); do
    kill "${private_desktop_pids[i]}" 2>/dev/null || true
  done
  private_desktop_pids=()
}
