#!/usr/bin/env bash
# Assembles the portable folder Quellix/ from a configured and built tree and packs it:
#   make-portable.sh BUILD_DIR ARCHIVE.tar.gz
# The folder runs from wherever it is unpacked: the program finds the bundled Qt and the
# other libraries a Debian 12 desktop may lack through its own run path, and the Qt plugins
# through bin/qt.conf. What every desktop has (the C and C++ runtimes, X11 and Wayland
# client libraries, OpenGL, fontconfig, GLib, D-Bus, the sound server's client library,
# OpenSSL, ICU) comes from the system, so that it matches the system's drivers and servers.
set -euo pipefail

build_dir=$(realpath "$1")
archive=$(realpath -m "$2")
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
folder=$stage/Quellix

cmake --install "$build_dir" --prefix "$folder" --strip >/dev/null
# Installed once more on the user's machine by the move into ~/Applications, not here.
rm -rf "$folder/share/doc" "$folder/share/man"
cat >"$folder/quellix-portable" <<'MARKER'
This folder is the portable build of Quellix: start bin/quellix.
MARKER
printf '[Paths]\nPrefix = ..\nPlugins = plugins\n' >"$folder/bin/qt.conf"
mkdir -p "$folder/lib"

provided_by_system() {
  case "$1" in
    linux-vdso.so* | ld-linux*.so* | libc.so* | libm.so* | libdl.so* | libpthread.so* | \
      librt.so* | libresolv.so* | libutil.so* | libstdc++.so* | libgcc_s.so* | \
      libGL.so* | libEGL.so* | libGLX.so* | libGLdispatch.so* | libOpenGL.so* | libgbm.so* | \
      libdrm.so* | libX11.so* | libX11-xcb.so* | libXau.so* | libXdmcp.so* | libXext.so* | \
      libxcb.so* | libxcb-dri2.so* | libxcb-dri3.so* | libxcb-glx.so* | libxcb-present.so* | \
      libxcb-randr.so* | libxcb-render.so* | libxcb-shape.so* | libxcb-shm.so* | \
      libxcb-sync.so* | libxcb-xfixes.so* | libxkbcommon.so* | libwayland-*.so* | \
      libSM.so* | libICE.so* | libfontconfig.so* | libfreetype.so* | libharfbuzz.so* | \
      libpng16.so* | libjpeg.so* | libz.so* | libzstd.so* | liblzma.so* | libbz2.so* | \
      liblz4.so* | libbrotli*.so* | libexpat.so* | libglib-2.0.so* | libgobject-2.0.so* | \
      libgio-2.0.so* | libgmodule-2.0.so* | libgthread-2.0.so* | libpcre2-8.so* | \
      libffi.so* | libmount.so* | libblkid.so* | libselinux.so* | libuuid.so* | \
      libdbus-1.so* | libsystemd.so* | libudev.so* | libcap.so* | libgcrypt.so* | \
      libgpg-error.so* | libpulse*.so* | libsndfile.so* | libasyncns.so* | libapparmor.so* | \
      libFLAC.so* | libogg.so* | libvorbis*.so* | libopus.so* | libmp3lame.so* | \
      libmpg123.so* | libssl.so* | libcrypto.so* | libicu*.so* | libgssapi_krb5.so* | \
      libkrb5*.so* | libk5crypto.so* | libcom_err.so* | libkeyutils.so* | libbsd.so* | \
      libmd.so* | libgraphite2.so* | libinput.so* | libmtdev.so* | libevdev.so* | \
      libwacom.so* | libgudev-1.0.so* | libgtk-3.so* | libgdk-3.so* | libatk*.so* | \
      libpango*.so* | libcairo*.so*)
      return 0 ;;
  esac
  return 1
}

# Copies every library the given files need that the system does not provide, and then
# what those need in turn.
bundle_libraries() {
  local pending=("$@") file name path
  while [ ${#pending[@]} -gt 0 ]; do
    file=${pending[0]}
    pending=("${pending[@]:1}")
    while read -r name path; do
      [ -n "$path" ] || continue
      provided_by_system "$name" && continue
      [ -e "$folder/lib/$name" ] && continue
      cp -L "$path" "$folder/lib/$name"
      chmod 0644 "$folder/lib/$name"
      pending+=("$folder/lib/$name")
    done < <(ldd "$file" | awk '$2 == "=>" && $3 ~ /^\// { print $1, $3 }')
  done
}

qt_plugins=$(qtpaths6 --query QT_INSTALL_PLUGINS 2>/dev/null ||
  echo /usr/lib/x86_64-linux-gnu/qt6/plugins)
plugins=()
program_libraries=$(ldd "$folder/bin/quellix")
needs() { [[ $program_libraries == *"$1"* ]]; }
if needs libQt6Gui; then
  plugins+=(platforms/libqxcb.so platforms/libqwayland-*.so platforms/libqoffscreen.so
    platformthemes platforminputcontexts xcbglintegrations wayland-shell-integration
    wayland-decoration-client wayland-graphics-integration-client imageformats/libqsvg.so
    iconengines/libqsvgicon.so)
fi
if needs libQt6Network; then
  plugins+=(tls networkinformation)
fi
for plugin in "${plugins[@]}"; do
  for path in "$qt_plugins"/$plugin; do
    [ -e "$path" ] || continue
    relative=${path#"$qt_plugins"/}
    mkdir -p "$folder/plugins/$(dirname "$relative")"
    cp -rL "$path" "$folder/plugins/$relative"
  done
done

mapfile -t plugin_files < <(find "$folder/plugins" -name '*.so' 2>/dev/null)
bundle_libraries "$folder/bin/quellix" "${plugin_files[@]}"

# The program's run path reaches every library loaded for it, the plugins' too, as long as
# they carry none of their own.
# shellcheck disable=SC2016 # for the loader to expand, not the shell
origin='$ORIGIN'
patchelf --force-rpath --set-rpath "$origin/../lib" "$folder/bin/quellix"
for library in "$folder"/lib/*.so*; do
  [ -e "$library" ] && patchelf --force-rpath --set-rpath "$origin" "$library"
done
for plugin in "${plugin_files[@]}"; do
  patchelf --force-rpath --set-rpath "$origin/../../lib" "$plugin"
done

mkdir -p "$(dirname "$archive")"
tar -C "$stage" --owner=0 --group=0 --sort=name -czf "$archive" Quellix
echo "$archive"
