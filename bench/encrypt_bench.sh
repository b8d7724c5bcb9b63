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
QV="$BUILD/src/qv"
QV_IMAGE="$BUILD/src/qv-image"
MIB="${QV_BENCH_MIB:-1024}"
if [ ! -x "$QV" ] || [ ! -x "$QV_IMAGE" ]; then
  echo "encrypt_bench: build first (no $QV or $QV_IMAGE)" >&2
  exit 1
fi

WORK="$(mktemp -d "${QV_BENCH_DIR:-/var/tmp}/qv-encrypt-bench.XXXXXX")"
export HOME="$WORK/home" XDG_DATA_HOME="$WORK/home/.local/share" XDG_CONFIG_HOME="$WORK/home/.config"
export XDG_RUNTIME_DIR="$WORK/run"
mkdir -p "$HOME" && mkdir -m 0700 "$XDG_RUNTIME_DIR"
MNT="$WORK/mnt"
cleanup() {
  "$QV_IMAGE" detach "$MNT" -force >/dev/null 2>&1 || true
  awk -v w="$WORK" '$2 ~ "^"w {print $2}' /proc/mounts | sort -r | while read -r m; do
    fusermount3 -u -z "$m" 2>/dev/null || umount -l "$m" 2>/dev/null || true
  done
  pkill -KILL -f "$WORK" 2>/dev/null || true
  rm -rf "$WORK"
}
trap cleanup EXIT

# ------------------------------------------------------------------ the tree
# A tenth of the bytes in 4 KiB files, three tenths in 256 KiB files, the rest
# in 8 MiB files, spread over folders as a user's documents are.
make_tree() {
  local root="$1" bytes=$((MIB * 1048576))
  mkdir -p "$root"
  python3 - "$root" "$bytes" <<'EOF'
import os, sys
root, total = sys.argv[1], int(sys.argv[2])
chunk = os.urandom(1 << 20)
def write(path, size):
    with open(path, "wb") as f:
        while size > 0:
            n = min(size, len(chunk)); f.write(chunk[:n]); size -= n
for share, size in ((0.1, 4096), (0.3, 262144), (0.6, 8 << 20)):
    count = max(1, int(total * share) // size)
    for i in range(count):
        d = os.path.join(root, f"{size}", f"d{i // 100}")
        os.makedirs(d, exist_ok=True)
        write(os.path.join(d, f"f{i}"), size)
EOF
}

echo "Setting up in $WORK ($MIB MiB of mixed files)"
make_tree "$WORK/home/Tree"
cp -a "$WORK/home/Tree" "$WORK/tree-copy"
sync
PASS="bench password"

# ------------------------------------------------------------------ (a) qv encrypt
printf '%s\n' "$PASS" | "$QV" set create
sync; echo 3 > /proc/sys/vm/drop_caches 2>/dev/null || true
start=$(date +%s.%N)
printf '%s\n' "$PASS" | "$QV" encrypt "$WORK/home/Tree" >/dev/null 2>"$WORK/encrypt.log" \
  || { cat "$WORK/encrypt.log" >&2; exit 1; }
a=$(echo "$(date +%s.%N) - $start" | bc)

# ------------------------------------------------------------------ (b) cp -a into a mounted image
IMG="$WORK/b.sparsebundle"
mkdir -p "$MNT"
printf '%s' "$PASS" | "$QV_IMAGE" create -encryption AES-256 -stdinpass -size 10240m -type SPARSEBUNDLE \
  -volname Tree -fs HFS+J -ov "$IMG" >/dev/null
printf '%s' "$PASS" | "$QV_IMAGE" attach "$IMG" -mountpoint "$MNT" -noverify -noautofsck -stdinpass >/dev/null
sync; echo 3 > /proc/sys/vm/drop_caches 2>/dev/null || true
start=$(date +%s.%N)
cp -a "$WORK/tree-copy" "$MNT/Tree"
sync -f "$MNT"
b=$(echo "$(date +%s.%N) - $start" | bc)
"$QV_IMAGE" detach "$MNT" >/dev/null

printf '%-34s %10s\n' "encrypting $MIB MiB" "seconds"
printf '%-34s %10.2f\n' "(a) qv encrypt" "$a" "(b) cp -a into a mounted image" "$b"
printf 'ratio a/b: %.2f (the encryption also makes the image, waits for indexing to start, moves the source to the Trash)\n' \
  "$(echo "$a / $b" | bc -l)"
