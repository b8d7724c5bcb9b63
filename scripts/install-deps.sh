#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the programs need, only when one is missing.
set -euo pipefail
PKGS=(build-essential cmake ninja-build pkg-config python3
      qt6-base-dev qt6-svg-dev libplist-dev libfuse3-dev fuse3 fuse2fs e2fsprogs libacl1-dev acl attr
      libssl-dev libicu-dev libgtest-dev libbenchmark-dev scrypt lsof util-linux psmisc dbus-daemon
      libext2fs-dev libglib2.0-dev libmount-dev xdg-utils
      # the fuzz targets: clang and its libFuzzer and sanitizer runtimes
      clang libclang-rt-14-dev
      # the desktop test: a display, a window manager, a tray host, a notification daemon,
      # a session bus, input and screenshots (xwd from x11-apps, turned into PNG by ImageMagick)
      xvfb openbox tint2 dunst xdotool dbus-bin x11-apps imagemagick desktop-file-utils)
missing=()
for p in "${PKGS[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
echo "Installing: ${missing[*]}"
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
