#!/usr/bin/env bash
# Restoring a folder against its baseline, side by side in one run:
#   (a) `qv restore` of an encrypted tree of mixed file sizes (image mounted on
#       a rescue folder, measured, contents copied back to the folder's path,
#       image to the Trash, unmounted);
#   (b) `cp -a` of the same tree out of a freshly mounted qv-image volume onto
#       the same disk, then sync: the copy alone.
# Both start with cold caches. Prints both times and the ratio a/b.
#
#   bench/restore_bench.sh [build directory]
# Environment: QV_BENCH_MIB (size of the tree, default 1024), QV_BENCH_DIR
# (where to work, default /var/tmp).
set -euo pipefail

HERE="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
BUILD="${1:-$(dirname "$HERE")/build}"
NAME=restore_bench
source "$HERE/folder_bench_common.sh"

echo "Setting up in $WORK ($MIB MiB of mixed files)"
make_tree "$WORK/home/Tree"
cp -a "$WORK/home/Tree" "$WORK/tree-copy"
printf '%s\n' "$PASS" | "$QV" set create
printf '%s\n' "$PASS" | "$QV" encrypt "$WORK/home/Tree" >/dev/null 2>"$WORK/encrypt.log" \
  || { cat "$WORK/encrypt.log" >&2; exit 1; }

make_image
attach_image
cp -a "$WORK/tree-copy" "$MNT/Tree"
"$QV_IMAGE" detach "$MNT" >/dev/null
rm -rf "$WORK/tree-copy"

# ------------------------------------------------------------------ (o) opening the set
# What every qv command pays before its task: the master file read and the
# password tried against the Folder Sets (the fake ones too), by `qv status`.
cold
start=$(date +%s.%N)
printf '%s\n' "$PASS" | "$QV" status >/dev/null 2>&1
o=$(since "$start")

# ------------------------------------------------------------------ (a) qv restore
cold
start=$(date +%s.%N)
printf '%s\n' "$PASS" | "$QV" restore "$WORK/home/Tree" >/dev/null 2>"$WORK/restore.log" \
  || { cat "$WORK/restore.log" >&2; exit 1; }
a=$(since "$start")

# ------------------------------------------------------------------ (b) cp -a out of a mounted image
attach_image
cold
start=$(date +%s.%N)
cp -a "$MNT/Tree" "$WORK/out"
sync -f "$WORK/out"
b=$(since "$start")
"$QV_IMAGE" detach "$MNT" >/dev/null

printf '%-34s %10s\n' "restoring $MIB MiB" "seconds"
printf '%-34s %10.2f\n' "(a) qv restore" "$a" "(b) cp -a out of a mounted image" "$b" \
  "(o) opening the set (qv status)" "$o"
printf 'ratio a/b: %.2f (the restore also opens the set, mounts the image, measures it and moves it to the Trash)\n' \
  "$(echo "$a / $b" | bc -l)"
printf 'ratio (a-o)/b: %.2f (the restore once the set is open)\n' "$(echo "($a - $o) / $b" | bc -l)"
