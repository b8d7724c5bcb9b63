#!/usr/bin/env bash
# The desktop application end to end on a display of its own: Xvfb, a private
# session bus, a window manager (openbox), a tray host (tint2) and a
# notification daemon (dunst), driven
# from outside with qv, xdotool and D-Bus, each screen saved as a PNG.
#
# usage: run-e2e.sh <directory of the built programs> <screenshot directory>
# Exit 77 (skipped) when a program it needs is missing. Everything it starts
# is killed by its pid when it ends, whichever way it ends.
set -uo pipefail

BIN=$(cd "$1" && pwd)
SHOTS=$2
for tool in Xvfb openbox tint2 dunst xdotool xwd dbus-daemon; do
  command -v "$tool" >/dev/null || { echo "e2e: $tool is missing (scripts/install-deps.sh)"; exit 77; }
done
# A stand-in that is not ImageMagick answers anything but a version.
convert -version 2>/dev/null | grep -q ImageMagick || { echo "e2e: ImageMagick is missing"; exit 77; }

WORK=$(mktemp -d /tmp/qv-e2e.XXXXXX)
PIDS=()
cleanup() {
  local status=$?
  for ((i = ${#PIDS[@]} - 1; i >= 0; i--)); do kill "${PIDS[i]}" 2>/dev/null; done
  for pid in "${PIDS[@]}"; do
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -9 "$pid" 2>/dev/null
  done
  rm -rf "$WORK"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

fail() { echo "e2e: FAILED: $*"; exit 1; }
step() { echo "e2e: $*"; }
# Waits up to $1 seconds for the command after it to succeed.
waitFor() {
  local seconds=$1; shift
  for _ in $(seq $((seconds * 10))); do "$@" >/dev/null 2>&1 && return 0; sleep 0.1; done
  return 1
}
shot() {
  mkdir -p "$SHOTS"
  xwd -root -silent | convert xwd:- png:"$SHOTS/$1.png" || fail "screenshot $1"
  step "saved $SHOTS/$1.png"
}

export HOME=$WORK/home XDG_CONFIG_HOME=$WORK/home/.config XDG_DATA_HOME=$WORK/home/.local/share
export XDG_RUNTIME_DIR=$WORK/runtime
mkdir -p "$XDG_CONFIG_HOME/Quillvane" "$XDG_DATA_HOME" "$XDG_RUNTIME_DIR"
chmod 700 "$XDG_RUNTIME_DIR"
unset WAYLAND_DISPLAY QT_QPA_PLATFORM

step "display, bus, window manager, tray host, notification daemon"
Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp 3>"$WORK/display" 2>"$WORK/xvfb.log" &
PIDS+=($!)
waitFor 10 test -s "$WORK/display" || fail "Xvfb did not start"
export DISPLAY=:$(cat "$WORK/display")
dbus-daemon --session --nofork --print-address=3 3>"$WORK/bus" 2>"$WORK/dbus.log" &
PIDS+=($!)
waitFor 10 test -s "$WORK/bus" || fail "dbus-daemon did not start"
export DBUS_SESSION_BUS_ADDRESS=$(head -1 "$WORK/bus")
# tint2 waits for a window manager before it shows anything.
openbox --sm-disable >"$WORK/openbox.log" 2>&1 &
PIDS+=($!)
tint2 -c "$(dirname "$0")/tint2rc" >"$WORK/tint2.log" 2>&1 &
PIDS+=($!)
dunst >"$WORK/dunst.log" 2>&1 &
PIDS+=($!)
waitFor 10 xdotool search --classname tint2 || fail "tint2 did not come up"

step "a Folder Set made with qv"
printf '[General]\nskipmigrationTov3=true\n' >"$XDG_CONFIG_HOME/Quillvane/Quillvane.conf"
printf 'e2e password\ne2e password\n' | "$BIN/qv" set create || fail "qv set create"

step "start: the tray icon, then the password screen in its panel"
"$BIN/quillvane" --verbose >"$WORK/quillvane.log" 2>&1 &
APP=$!
PIDS+=($APP)
waitFor 20 "$BIN/qv" show || fail "quillvane did not answer on the bus: $(cat "$WORK/quillvane.log")"
waitFor 10 xdotool search --onlyvisible --name '^Quillvane$' || fail "no window came up"
sleep 1
shot 01-password-screen

step "a second start brings the first forward and ends"
timeout 20 "$BIN/quillvane" >"$WORK/second.log" 2>&1 || fail "the second start did not end well"
kill -0 "$APP" 2>/dev/null || fail "the first instance died"

step "the password typed on the keyboard opens the set"
xdotool type --delay 40 "e2e password"
shot 02-password-typed
xdotool key Return
sleep 0.3
shot 03-unlocking
waitFor 60 grep -q "the window is unlocked" "$WORK/quillvane.log" || fail "the password did not open the set"
sleep 0.5
shot 04-unlocked

step "the end of the session (SIGTERM) quits as the menu does: a backup of the run"
kill -TERM "$APP"
waitFor 20 bash -c "! kill -0 $APP" || fail "quillvane did not end on SIGTERM"
ls "$XDG_DATA_HOME/com.marrowfen.Quillvane3/Backups/" | grep -q "^database3 " || fail "no backup after a run with an unlock"

step "started again in window mode: the window, with the password screen"
printf 'QVWindowMode=1\n' >>"$XDG_CONFIG_HOME/Quillvane/Quillvane.conf"
"$BIN/quillvane" --verbose >"$WORK/quillvane2.log" 2>&1 &
APP=$!
PIDS+=($APP)
waitFor 20 xdotool search --onlyvisible --name '^Quillvane$' || fail "no window in window mode"
sleep 1
shot 05-window-mode
kill -TERM "$APP"
waitFor 20 bash -c "! kill -0 $APP" || fail "quillvane did not end on SIGTERM"

step "passed"
