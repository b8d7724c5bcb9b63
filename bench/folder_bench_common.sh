# What the folder benchmarks share: a private home for qv under a work
# directory (removed at exit, with whatever is still mounted or running there),
# and a tree of mixed file sizes. Sourced with NAME and BUILD set; sets MIB
# (QV_BENCH_MIB, default 1024), WORK, MNT, QV and QV_IMAGE.
MIB="${QV_BENCH_MIB:-1024}"
QV="$BUILD/src/qv"
QV_IMAGE="$BUILD/src/qv-image"
if [ ! -x "$QV" ] || [ ! -x "$QV_IMAGE" ]; then
  echo "$NAME: build first (no $QV or $QV_IMAGE)" >&2
  exit 1
fi

WORK="$(mktemp -d "${QV_BENCH_DIR:-/var/tmp}/qv-$NAME.XXXXXX")"
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


# The baseline's image: a qv-image of the size qv gives a folder, made empty at
# $IMG with the bench password; attach_image mounts it on $MNT.
IMG="$WORK/b.sparsebundle"
PASS="bench password"
make_image() {
  mkdir -p "$MNT"
  printf '%s' "$PASS" | "$QV_IMAGE" create -encryption AES-256 -stdinpass -size 10240m -type SPARSEBUNDLE \
    -volname Tree -fs HFS+J -ov "$IMG" >/dev/null
}
attach_image() {
  printf '%s' "$PASS" | "$QV_IMAGE" attach "$IMG" -mountpoint "$MNT" -noverify -noautofsck -stdinpass >/dev/null
}
# Empty caches, so that a timed run reads from the disk.
cold() {
  sync; echo 3 > /proc/sys/vm/drop_caches 2>/dev/null || true
}
# Seconds since $1 (a `date +%s.%N`).
since() {
  echo "$(date +%s.%N) - $1" | bc
}
