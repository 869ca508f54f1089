#!/usr/bin/env bash
# Installs Quellix the ways a user would, on this machine:
#   PackagingTest.sh BUILD_DIR
# the installed desktop files pass their validators; the Debian package passes lintian,
# installs with apt, lists a playing application against a private sound server, and is
# purged without a trace; the portable folder, unpacked into a downloads folder, finds its
# own libraries and lists the same application.
# It installs and removes a system package, so it runs only when asked to
# (QUELLIX_PACKAGING_TESTS=1), as root, with apt; otherwise it reports itself skipped (77).
set -euo pipefail

readonly skipped=77
if [ "${QUELLIX_PACKAGING_TESTS:-}" != 1 ]; then
  echo "skipped: set QUELLIX_PACKAGING_TESTS=1 to install and remove the package"
  exit $skipped
fi
if [ "$(id -u)" -ne 0 ] || ! command -v apt-get >/dev/null; then
  echo "skipped: needs root and apt-get"
  exit $skipped
fi

build_dir=$(realpath "$1")
source_dir=$(realpath "$(dirname "$0")/../..")
readonly package=quellix
readonly app_id=com.norvalin.quellix
readonly spike_log=/tmp/quellix-spike.log
# Other work on the machine may hold the package database for a while.
apt=(env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=120 -y -q)

source "$source_dir/scripts/private-desktop.sh"

work=$(mktemp -d)
player_pid=""
cleanup() {
  exec 3>&- 2>/dev/null || true
  [ -n "$player_pid" ] && kill "$player_pid" 2>/dev/null
  private_desktop_stop
  if dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed'; then
    "${apt[@]}" remove --purge "$package" >/dev/null 2>&1
  fi
  rm -rf "$work"
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*" >&2
  exit 1
}
step() { echo "== $*"; }

# Runs `quellix --list` and checks that it succeeds and logs the playing test player.
lists_the_player() {
  local program=$1 before status=0
  before=$([ -f "$spike_log" ] && wc -c <"$spike_log" || echo 0)
  "$program" --list >"$work/list.out" 2>&1 || status=$?
  [ "$status" -eq 0 ] || { cat "$work/list.out"; fail "$program --list exited with $status"; }
  tail -c +"$((before + 1))" "$spike_log" >"$work/list.log"
  cat "$work/list.log"
  grep -q "pid=$player_pid .*playing=true" "$work/list.log" ||
    fail "$program --list did not log the playing test player (pid $player_pid)"
}

step "installed files pass their validators"
DESTDIR="$work/destdir" cmake --install "$build_dir" --prefix /usr >/dev/null
desktop-file-validate "$work/destdir/usr/share/applications/$app_id.desktop"
appstreamcli validate --no-net "$work/destdir/usr/share/metainfo/$app_id.metainfo.xml"
[ -x "$work/destdir/usr/bin/quellix" ] || fail "the program is not installed"
if [ -e "$source_dir/resources/icons/$app_id.svg" ]; then
  [ -e "$work/destdir/usr/share/icons/hicolor/scalable/apps/$app_id.svg" ] ||
    fail "the icon is not installed"
else
  echo "note: no application icon in the sources yet"
fi

step "the Debian package passes lintian"
cpack --config "$build_dir/CPackConfig.cmake" -B "$work/deb" >/dev/null
deb=$(echo "$work"/deb/${package}_*.deb)
[ -f "$deb" ] || fail "cpack made no package"
lintian_status=0
lintian --fail-on error --info --pedantic "$deb" >"$work/lintian.log" 2>&1 || lintian_status=$?
grep -v 'root privileges' "$work/lintian.log" || true
[ "$lintian_status" -eq 0 ] || fail "lintian reports errors"

step "a private sound server with a test player"
private_desktop_runtime "$work/runtime"
private_desktop_sound || fail "the private sound server did not start"
# The player plays until its standard input closes, which this script holds open.
mkfifo "$work/player.in"
mpv --no-config --really-quiet --no-video --ao=pulse --input-ipc-client=fd://0 \
  'av://lavfi:aevalsrc=0.5*sin(2*PI*440*t):s=48000' <"$work/player.in" >"$work/player.out" 2>&1 &
player_pid=$!
exec 3>"$work/player.in"
wait_for 30 sh -c "pactl list sink-inputs | grep -q 'application.process.id = \"$player_pid\"'" ||
  fail "the test player did not start playing"

step "apt installs the package, and the installed program lists the player"
"${apt[@]}" install "$deb" >"$work/apt.log" 2>&1 ||
  { cat "$work/apt.log"; fail "apt-get install failed"; }
dpkg-query -L "$package" >"$work/files"
lists_the_player /usr/bin/quellix

step "purging the package leaves nothing behind"
"${apt[@]}" remove --purge "$package" >"$work/apt.log" 2>&1 ||
  { cat "$work/apt.log"; fail "apt-get remove failed"; }
if dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'installed'; then
  fail "the package is still known to dpkg"
fi
while read -r path; do
  [ -d "$path" ] && continue
  [ -e "$path" ] && fail "$path is left behind"
done <"$work/files"

step "the portable folder runs from a downloads folder with its own libraries"
archive="$work/Quellix-portable.tar.gz"
"$source_dir/packaging/make-portable.sh" "$build_dir" "$archive" >/dev/null
downloads="$work/home/Downloads"
mkdir -p "$downloads"
tar -C "$downloads" -xzf "$archive"
folder="$downloads/Quellix"
[ -f "$folder/quellix-portable" ] || fail "the portable folder has no marker"
[ -x "$folder/bin/quellix" ] || fail "the portable folder has no bin/quellix"
ldd "$folder/bin/quellix" >"$work/ldd"
if grep -q 'not found' "$work/ldd"; then
  cat "$work/ldd"
  fail "the portable program misses libraries"
fi
if grep 'libQt6' "$work/ldd" | grep -v -q "$folder/"; then
  cat "$work/ldd"
  fail "the portable program takes Qt from the system"
fi
lists_the_player "$folder/bin/quellix"

echo "packaging: all checks passed"
