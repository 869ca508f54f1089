#!/usr/bin/env bash
# Installs the Debian packages Quellix needs to build, test and run. Sourced by run.sh and
# test.sh; does nothing when everything is present.
set -euo pipefail

QUELLIX_PACKAGES=(
  build-essential cmake ninja-build pkg-config git ccache
  clang clang-format libclang-rt-14-dev
  qt6-base-dev qt6-svg-dev qt6-tools-dev libxcb1-dev
  libpulse-dev libpipewire-0.3-dev libspeexdsp-dev nlohmann-json3-dev libsystemd-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  qt6-l10n-tools dpkg-dev lintian desktop-file-utils appstream patchelf
  pulseaudio pulseaudio-utils pipewire pipewire-pulse wireplumber dbus dbus-daemon sox mpv mpv-mpris
  xvfb xauth x11-utils dbus-x11 imagemagick fonts-dejavu-core
  xdotool at-spi2-core
  qt6-wayland xfce4-panel xfwm4 lxqt-panel openbox sway waybar grim
  libwayland-dev libwayland-bin
)

# Only the benchmarks compare the program with these; ./test.sh does not install them.
QUELLIX_BENCH_PACKAGES=(pavucontrol-qt pavucontrol pasystray)

quellix_missing_packages() {
  local missing=()
  local wanted=("$@")
  [ ${#wanted[@]} -eq 0 ] && wanted=("${QUELLIX_PACKAGES[@]}")
  for package in "${wanted[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
      missing+=("$package")
    fi
  done
  echo "${missing[@]:-}"
}

quellix_install_packages() {
  local missing
  missing=$(quellix_missing_packages "$@")
  [ -z "$missing" ] && return 0
  echo "Installing: $missing"
  local sudo=()
  if [ "$(id -u)" -ne 0 ]; then
    if command -v sudo >/dev/null; then
      sudo=(sudo)
    else
      echo "Missing packages ($missing) and no way to install them: run as root." >&2
      return 1
    fi
  fi
  # shellcheck disable=SC2086
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q
  # shellcheck disable=SC2086
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends $missing
}

# Builds go through ccache when it is there: the next build of the same sources, this
# checkout's or another's on the machine, is mostly cache hits. A build directory takes the
# launcher when it is first configured.
quellix_use_ccache() {
  command -v ccache >/dev/null || return 0
  export CMAKE_C_COMPILER_LAUNCHER=${CMAKE_C_COMPILER_LAUNCHER:-ccache}
  export CMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER:-ccache}
  # Paths are hashed relative to the checkout, and the build folder's own path not at all,
  # so that another checkout's objects serve this one.
  export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD} CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR:-true}
}

quellix_install_bench_packages() {
  quellix_install_packages "${QUELLIX_PACKAGES[@]}" "${QUELLIX_BENCH_PACKAGES[@]}"
}
