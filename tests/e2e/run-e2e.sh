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
BUS_CALL=$3
for tool in Xvfb openbox tint2 dunst xdotool xwd dbus-daemon fusermount3; do
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
  # Folders stay mounted when the application ends: the folder's file system
  # first, then the disk below it; their servers end with their mounts.
  awk -v w="$WORK" 'index($5, w) == 1 {print $5}' /proc/self/mountinfo | tac | while read -r mounted; do
    fusermount3 -u -z "$mounted" 2>/dev/null || fusermount -u -z "$mounted" 2>/dev/null
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
  # The grab can fail while a window is being mapped: a moment later it works.
  for _ in 1 2 3; do
    xwd -root -silent 2>/dev/null | convert xwd:- png:"$SHOTS/$1.png" 2>/dev/null && break
    sleep 0.5
  done
  test -s "$SHOTS/$1.png" || fail "screenshot $1"
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
waitFor 30 xdotool search --classname tint2 || fail "tint2 did not come up"

PASSWORD='Correct-Horse.7 e2e'
FOLDER=$HOME/Secrets
mounted() { grep -q " $1 " /proc/self/mountinfo; }
panel() { xdotool search --onlyvisible --name '^Quillvane$' | head -1; }
# Clicks at x,y inside the panel or window.
clickIn() {
  local window; window=$(panel)
  xdotool mousemove --window "$window" "$1" "$2" click 1
}
# The notices (dunst's, or the floating panels) stack at the top right, over
# the row: a click takes each away.
dismissPanels() {
  for _ in 1 2 3; do
    xdotool mousemove 1100 70 click 1
    sleep 0.3
    xdotool mousemove 1100 190 click 1
    sleep 0.3
  done
}
# The lock control of the first row: at the right end of the row, below the search field.
clickFirstLock() {
  dismissPanels
  local width; width=$(xdotool getwindowgeometry --shell "$(panel)" | sed -n 's/^WIDTH=//p')
  clickIn $((width - ROW_LOCK_RIGHT)) "$ROW_LOCK_Y"
}
ROW_LOCK_RIGHT=${ROW_LOCK_RIGHT:-37}
ROW_LOCK_Y=${ROW_LOCK_Y:-101}

printf '[General]\nskipmigrationTov3=true\n' >"$XDG_CONFIG_HOME/Quillvane/Quillvane.conf"
mkdir -p "$FOLDER"
for n in 1 2 3; do head -c 4M /dev/urandom >"$FOLDER/file$n"; done
echo "kept secret" >"$FOLDER/note.txt"

step "first run: the set-up assistant makes the Folder Set"
"$BIN/quillvane" --verbose >"$WORK/quillvane.log" 2>&1 &
APP=$!
PIDS+=($APP)
waitFor 20 xdotool search --onlyvisible --name 'Setup Assistant' || fail "no set-up assistant: $(cat "$WORK/quillvane.log")"
ASSISTANT=$(xdotool search --onlyvisible --name 'Setup Assistant' | head -1)
sleep 1
xdotool windowactivate --sync "$ASSISTANT" 2>/dev/null
shot 01-assistant-welcome
xdotool key Return
sleep 0.5
xdotool type --delay 30 "$PASSWORD"
xdotool key Tab
xdotool type --delay 30 "$PASSWORD"
sleep 0.3
shot 02-assistant-password
xdotool key Return
# The key derivation runs on a worker; the set's first save makes the master file.
waitFor 90 test -s "$XDG_DATA_HOME/com.marrowfen.Quillvane3/database3" || fail "the assistant made no Folder Set"
sleep 1.5
shot 03-assistant-finished
xdotool key Return
waitFor 20 bash -c "! xdotool search --onlyvisible --name 'Setup Assistant'" || fail "the assistant did not end"
waitFor 10 xdotool search --onlyvisible --name '^Quillvane$' || fail "no panel after the assistant"
sleep 1
shot 04-password-screen

step "a second start brings the first forward and ends"
timeout 20 "$BIN/quillvane" >"$WORK/second.log" 2>&1 || fail "the second start did not end well"
kill -0 "$APP" 2>/dev/null || fail "the first instance died"

step "the password typed on the keyboard opens the set"
xdotool windowactivate --sync "$(panel)" 2>/dev/null
xdotool type --delay 30 "$PASSWORD"
xdotool key Return
waitFor 60 grep -q "the window is unlocked" "$WORK/quillvane.log" || fail "the password did not open the set"
sleep 0.5
shot 05-empty-list

step "a folder chosen in the folder chooser is encrypted, its progress on the row"
xdotool key ctrl+o
waitFor 10 xdotool search --onlyvisible --name 'Choose a Folder' || fail "no folder chooser"
sleep 1
xdotool type --delay 20 "$FOLDER"
sleep 0.3
shot 06-chooser
# The first Return may only take the completion that pops up under the path.
xdotool key Return
waitFor 3 bash -c "! xdotool search --onlyvisible --name 'Choose a Folder'" || xdotool key Return
waitFor 5 bash -c "! xdotool search --onlyvisible --name 'Choose a Folder'" || fail "the chooser did not take the path"
# A few moments of the encryption, the progress on the row.
for n in 1 2 3 4; do
  sleep 1
  grep -q "original folder has been placed in the Trash" "$WORK/quillvane.log" && break
  shot "07-encrypting-$n"
done
waitFor 120 grep -q "original folder has been placed in the Trash" "$WORK/quillvane.log" ||
  fail "the folder was not encrypted: $(tail -20 "$WORK/quillvane.log")"
sleep 2
shot 08-encrypted

step "lock and unlock from the row's lock control"
# Whichever state the encryption left, one click turns it over and a second back.
if mounted "$FOLDER"; then first=locked; else first=unlocked; fi
toggledTo() { if [[ $1 == locked ]]; then ! mounted "$FOLDER"; else mounted "$FOLDER"; fi; }
clickFirstLock
waitFor 60 toggledTo "$first" || fail "the row's lock control did not leave the folder $first"
sleep 1
shot "09-$first"
clickFirstLock
if [[ $first == locked ]]; then second=unlocked; else second=locked; fi
waitFor 60 toggledTo "$second" || fail "the row's lock control did not leave the folder $second"
sleep 1
shot "10-$second"
if ! mounted "$FOLDER"; then
  clickFirstLock
  waitFor 60 mounted "$FOLDER" || fail "the row did not unlock the folder"
fi
test -f "$FOLDER/note.txt" || fail "the files are not in the unlocked folder"

step "a busy folder does not lock; the notice names the program holding it"
(cd "$FOLDER" && exec sleep 600) &
HOLDER=$!
PIDS+=($HOLDER)
sleep 0.5
clickFirstLock
sleep 3
shot 11-busy-panel
mounted "$FOLDER" || fail "a busy folder was locked"
grep -q "Application sleep prevented" "$WORK/quillvane.log" || fail "the busy lock did not name the holding program"
kill "$HOLDER"
waitFor 10 bash -c "! kill -0 $HOLDER"

step "LockFolder and UnlockFolder over D-Bus"
answer=$(printf '%s\n' "$PASSWORD" | "$BUS_CALL" LockFolder "$FOLDER") ||
  fail "LockFolder: $answer"
echo "e2e: LockFolder answered $answer"
[[ $answer == "(true,"* ]] || fail "LockFolder refused: $answer"
waitFor 30 bash -c "! grep -q ' $FOLDER ' /proc/self/mountinfo" || fail "LockFolder left the folder mounted"
answer=$(printf '%s\n' "$PASSWORD" | "$BUS_CALL" UnlockFolder "$FOLDER") ||
  fail "UnlockFolder: $answer"
echo "e2e: UnlockFolder answered $answer"
[[ $answer == "(true,"* ]] || fail "UnlockFolder refused: $answer"
waitFor 30 mounted "$FOLDER" || fail "UnlockFolder did not mount the folder"
grep -q "$PASSWORD" "$WORK/quillvane.log" && fail "the password reached the log"

step "quit: a backup of the run"
kill -TERM "$APP"
waitFor 20 bash -c "! kill -0 $APP" || fail "quillvane did not end on SIGTERM"
ls "$XDG_DATA_HOME/com.marrowfen.Quillvane3/Backups/" | grep -q "^database3 " || fail "no backup after a run with an unlock"

step "started again in window mode and a dark palette: the window, with the password screen"
printf 'QVWindowMode=1\n' >>"$XDG_CONFIG_HOME/Quillvane/Quillvane.conf"
"$BIN/quillvane" --verbose --dark >"$WORK/quillvane2.log" 2>&1 &
APP=$!
PIDS+=($APP)
waitFor 20 xdotool search --onlyvisible --name '^Quillvane$' || fail "no window in window mode"
sleep 1
shot 12-window-dark-password
xdotool windowactivate --sync "$(panel)" 2>/dev/null
xdotool type --delay 30 "$PASSWORD"
xdotool key Return
waitFor 60 grep -q "the window is unlocked" "$WORK/quillvane2.log" || fail "the password did not open the set again"
sleep 1
shot 13-window-dark-folders
kill -TERM "$APP"
waitFor 20 bash -c "! kill -0 $APP" || fail "quillvane did not end on SIGTERM"

step "passed"
