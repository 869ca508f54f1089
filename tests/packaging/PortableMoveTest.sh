#!/usr/bin/env bash
# The portable folder, the way a user meets it: unpacked in the downloads folder and started
# on a desktop of the test's own (Xvfb, a private session bus and sound server, a private
# home), it offers to move itself. Accepting copies it to ~/Applications/Quellix, gives it a
# desktop entry and hands over to the copy, which runs without asking again; declining
# leaves ~/Applications alone and keeps the program running.
#   PortableMoveTest.sh BUILD_DIR
# It starts a display server and a desktop's worth of processes, so it runs only when asked
# to (QUELLIX_PACKAGING_TESTS=1); otherwise it reports itself skipped (77).
set -euo pipefail

readonly skipped=77
if [ "${QUELLIX_PACKAGING_TESTS:-}" != 1 ]; then
  echo "skipped: set QUELLIX_PACKAGING_TESTS=1 to start the portable folder on a private display"
  exit $skipped
fi

build_dir=$(realpath "$1")
source_dir=$(realpath "$(dirname "$0")/../..")
readonly bus_name=com.norvalin.Quellix
readonly desktop_entry=com.norvalin.quellix.desktop
readonly offer_title=Quellix
# How long each thing may take on a busy machine before it counts as not happening at all.
readonly offer_timeout_s=20
readonly quit_timeout_s=5
readonly copy_timeout_s=15
# How long a box that is not wanted gets to turn up anyway.
readonly quiet_period_s=3

for tool in Xvfb dbus-daemon dbus-send pulseaudio pactl xdotool xprop desktop-file-validate; do
  command -v "$tool" >/dev/null || {
    echo "FAIL: $tool is missing (scripts/setup.sh installs it)" >&2
    exit 1
  }
done

source "$source_dir/scripts/private-desktop.sh"
work=$(mktemp -d /tmp/quellix-move.XXXXXX)

# Every process running a program from the test's folders, the copies in ~/Applications too:
# those are started by Quellix itself, not by this script.
quellix_pids() {
  local exe pid
  for exe in /proc/[0-9]*/exe; do
    pid=${exe#/proc/}
    pid=${pid%/exe}
    [[ $(readlink "$exe" 2>/dev/null) == "$work/"* ]] && echo "$pid"
  done
  return 0
}

stop_quellix() {
  local pid
  for pid in $(quellix_pids); do kill "$pid" 2>/dev/null || true; done
  for _ in $(seq 50); do
    [ -z "$(quellix_pids)" ] && return 0
    sleep 0.1
  done
  for pid in $(quellix_pids); do kill -KILL "$pid" 2>/dev/null || true; done
}

cleanup() {
  stop_quellix
  private_desktop_stop
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

fail() {
  echo "FAIL: $*" >&2
  for log in "$work"/*/quellix.log; do
    [ -f "$log" ] && { echo "--- $log" >&2; cat "$log" >&2; }
  done
  exit 1
}
step() { echo "== [$(date +%T.%3N)] $*"; }
now_ms() { date +%s%3N; }

step "the portable archive"
archive=$work/Quellix-portable.tar.gz
"$source_dir/packaging/make-portable.sh" "$build_dir" "$archive" >/dev/null

step "a private desktop: display, session bus, sound server"
private_desktop_runtime "$work/runtime"
private_desktop_display || fail "no display: $(cat "$XDG_RUNTIME_DIR/xvfb.log")"
private_desktop_bus || fail "the session bus did not start"
private_desktop_sound || fail "the sound server did not start"
# Nothing of the machine's own desktop may leak in.
unset WAYLAND_DISPLAY SESSION_MANAGER PULSE_SERVER QT_QPA_PLATFORM QT_PLUGIN_PATH \
  LD_LIBRARY_PATH APPIMAGE APPDIR XDG_DATA_DIRS XDG_CONFIG_DIRS
export LANG=de_DE.UTF-8 LANGUAGE=de

# A fresh home for each start, with the portable folder unpacked where the user's downloads
# go; a German desktop names that folder in user-dirs.dirs.
home=""
downloads=""
fresh_home() {
  home=$work/$1
  downloads=$home/Downloads-$1
  export HOME=$home XDG_CONFIG_HOME=$home/.config XDG_DATA_HOME=$home/.local/share \
    XDG_CACHE_HOME=$home/.cache
  mkdir -p "$downloads" "$XDG_CONFIG_HOME"
  # shellcheck disable=SC2016 # the file's own syntax
  printf 'XDG_DOWNLOAD_DIR="$HOME/%s"\n' "${downloads#"$home"/}" >"$XDG_CONFIG_HOME/user-dirs.dirs"
  tar -C "$downloads" -xzf "$archive"
}

# The visible modal dialogs of Quellix: the offer is one, its other windows are not.
offer_boxes() {
  local id
  for id in $(xdotool search --onlyvisible --class '^Quellix$' 2>/dev/null); do
    xprop -id "$id" _NET_WM_WINDOW_TYPE _NET_WM_STATE 2>/dev/null |
      tr '\n' ' ' | grep -q '_NET_WM_WINDOW_TYPE_DIALOG.*_NET_WM_STATE_MODAL' && echo "$id"
  done
  return 0
}
has_offer_box() { [ -n "$(offer_boxes)" ]; }
box_closed() { ! offer_boxes | grep -qx "$box"; }

# A child that has exited stays a zombie until waited for, and a zombie still takes signals.
exited() {
  ! kill -0 "$1" 2>/dev/null || [ "$(awk '{ print $3 }' "/proc/$1/stat" 2>/dev/null)" == Z ]
}

bus_name_owner_pid() {
  local owner
  owner=$(dbus-send --session --print-reply=literal --dest=org.freedesktop.DBus / \
    org.freedesktop.DBus.GetNameOwner "string:$bus_name" 2>/dev/null) || return 1
  dbus-send --session --print-reply=literal --dest=org.freedesktop.DBus / \
    org.freedesktop.DBus.GetConnectionUnixProcessID "string:${owner// /}" 2>/dev/null |
    awk '{ print $2 }'
}
name_owned_by() {
  local pid
  pid=$(bus_name_owner_pid) || return 1
  [ "$(readlink "/proc/$pid/exe" 2>/dev/null)" == "$1" ]
}

# Starts the portable folder's program and waits for the offer; sets `started` and `box`.
started=""
box=""
start_and_expect_offer() {
  "$downloads/Quellix/bin/quellix" >"$home/quellix.log" 2>&1 &
  started=$!
  wait_for $offer_timeout_s has_offer_box || fail "no offer to move appeared"
  box=$(offer_boxes | head -n 1)
  [ "$(xdotool getwindowname "$box")" == "$offer_title" ] ||
    fail "the offer's title is '$(xdotool getwindowname "$box")', not '$offer_title'"
}

# Keys go to the focused window through the XTEST extension, as a keyboard's would: a key
# sent to the box itself fails once the box closes, between the key's press and release.
press() {
  xdotool windowfocus --sync "$box" key --delay 100 "$@"
}

declines() {
  local keys=("$@") applications
  start_and_expect_offer
  press "${keys[@]}"
  wait_for 5 box_closed || fail "the offer stayed open after ${keys[*]}"
  sleep $quiet_period_s
  ! exited "$started" || fail "Quellix quit after the move was declined (${keys[*]})"
  name_owned_by "$downloads/Quellix/bin/quellix" ||
    fail "the program told to move later does not own $bus_name"
  applications=$home/Applications
  if [ -e "$applications" ] && [ -n "$(ls -A "$applications")" ]; then
    fail "declining left $(ls -A "$applications") in ~/Applications"
  fi
  [ ! -e "$XDG_DATA_HOME/applications/$desktop_entry" ] || fail "declining wrote a desktop entry"
  stop_quellix
}

step "\"Später\" (Tab to it, Return) leaves ~/Applications alone and keeps Quellix running"
fresh_home later-button
declines Tab Return

step "Escape declines the same way"
fresh_home later-escape
declines Escape

# The program an Exec value starts, read as a launcher reads it, whichever quoting the writer
# chose: the value's own escapes undone, then the first word without its double quotes and
# their backslash escapes, "%%" as "%".
exec_program() {
  local text=${1//'\\'/$'\1'} word='' quoted=0 i c
  text=${text//'\s'/ }
  text=${text//'\n'/$'\n'}
  text=${text//'\t'/$'\t'}
  text=${text//'\r'/$'\r'}
  text=${text//$'\1'/'\'}
  for ((i = 0; i < ${#text}; i++)); do
    c=${text:i:1}
    if [ "$c" == '%' ] && [ "${text:i+1:1}" == '%' ] || { ((quoted)) && [ "$c" == '\' ]; }; then
      i=$((i + 1))
      word+=${text:i:1}
    elif [ "$c" == '"' ]; then
      quoted=$((1 - quoted))
    elif ((!quoted)) && [[ $c == [[:space:]] ]]; then
      [ -n "$word" ] && break
    else
      word+=$c
    fi
  done
  printf '%s\n' "$word"
}

step "\"Verschieben und starten\" (Return) moves Quellix to ~/Applications and starts the copy"
fresh_home move
start_and_expect_offer
copy=$home/Applications/Quellix/bin/quellix
pressed=$(now_ms)
press Return
wait_for $quit_timeout_s exited "$started" ||
  fail "the program in the downloads folder did not quit within ${quit_timeout_s} s"
echo "the original quit $(($(now_ms) - pressed)) ms after the move was accepted"
[ -x "$copy" ] || fail "$copy is missing or not executable"
[ -f "$home/Applications/Quellix/quellix-portable" ] || fail "the copy has no marker"
[ -d "$downloads/Quellix" ] || fail "the downloaded folder is gone"
entry=$XDG_DATA_HOME/applications/$desktop_entry
[ -f "$entry" ] || fail "no desktop entry at $entry"
desktop-file-validate "$entry" || fail "the desktop entry does not validate"
exec_value=$(sed -n 's/^Exec=//p' "$entry" | head -n 1)
[ "$(exec_program "$exec_value")" == "$copy" ] ||
  fail "the desktop entry does not start the copy: $(cat "$entry")"
wait_for $copy_timeout_s name_owned_by "$copy" ||
  fail "no program from $copy owns $bus_name (owner pid: $(bus_name_owner_pid || echo none))"
echo "the copy owned $bus_name $(($(now_ms) - pressed)) ms after the move was accepted"
sleep $quiet_period_s
[ -z "$(offer_boxes)" ] || fail "the copy in ~/Applications offered the move again"
name_owned_by "$copy" || fail "the copy did not keep running"

echo "portable move: all checks passed"
