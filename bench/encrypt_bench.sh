#!/usr/bin/env bash
# Encrypting a folder against its baseline, side by side in one run:
#   (a) `qv encrypt` of a tree of mixed file sizes (image made, contents copied
#       in, image moved into its storage, source to the Trash);
#   (b) `cp -a` of the same tree into a mounted qv-image volume of the same
#       size, then sync: the copy alone, on the same disk.
# Prints both times and the ratio a/b.
#
#   bench/encrypt_bench.sh [build directory]
# Environment: QV_BENCH_MIB (size of the tree, default 1024), QV_BENCH_DIR
# (where to work, default /var/tmp).
set -euo pipefail

HERE="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
BUILD="${1:-$(dirname "$HERE")/build}"
NAME=encrypt_bench
source "$HERE/folder_bench_common.sh"

echo "Setting up in $WORK ($MIB MiB of mixed files)"
make_tree "$WORK/home/Tree"
cp -a "$WORK/home/Tree" "$WORK/tree-copy"
sync

# ------------------------------------------------------------------ (a) qv encrypt
printf '%s\n' "$PASS" | "$QV" set create
cold
start=$(date +%s.%N)
printf '%s\n' "$PASS" | "$QV" encrypt "$WORK/home/Tree" >/dev/null 2>"$WORK/encrypt.log" \
  || { cat "$WORK/encrypt.log" >&2; exit 1; }
a=$(since "$start")

# ------------------------------------------------------------------ (b) cp -a into a mounted image
make_image
attach_image
cold
start=$(date +%s.%N)
cp -a "$WORK/tree-copy" "$MNT/Tree"
sync -f "$MNT"
b=$(since "$start")
"$QV_IMAGE" detach "$MNT" >/dev/null

printf '%-34s %10s\n' "encrypting $MIB MiB" "seconds"
printf '%-34s %10.2f\n' "(a) qv encrypt" "$a" "(b) cp -a into a mounted image" "$b"
printf 'ratio a/b: %.2f (the encryption also makes the image, waits for indexing to start, moves the source to the Trash)\n' \
  "$(echo "$a / $b" | bc -l)"
