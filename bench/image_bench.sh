#!/usr/bin/env bash
# shellcheck disable=SC2034  # result arrays are read through namerefs
# Throughput of a mounted qv-image volume, side by side in one run with:
#   (b) fuse2fs on a plain, unencrypted image file holding the same ext4 as a
#       qv-image disk: the ceiling of the userspace path,
#   (c) gocryptfs, (d) CryFS: other encrypted folders for a desktop user,
#   (e) the plain disk under all of them.
# Three tests on each: sequential write of 1 GiB with fsync, cold read of it,
# and creating 10,000 small files with a final sync. Prints a table and the
# ratios a/b and a/d, with the targets "a >= 0.8 b" and "a > d".
#
#   bench/image_bench.sh [path/to/qv-image]
# Environment: QV_IMAGE (the program), QV_BENCH_MIB (default 1024),
# QV_BENCH_FILES (default 10000), QV_BENCH_ROUNDS (default 3), QV_BENCH_DIR (where to work, default /var/tmp),
# QV_IMAGE_LAYER (passed on to qv-image: fuse2fs or kernel), QV_BENCH_STACKS (which
# stacks to time, default "a b c d e"; all are set up).
set -euo pipefail

HERE="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
ROOT="$(dirname "$HERE")"
QV_IMAGE="${1:-${QV_IMAGE:-$ROOT/build/src/qv-image}}"
MIB="${QV_BENCH_MIB:-1024}"
FILES="${QV_BENCH_FILES:-10000}"
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"

die() { echo "image_bench: $*" >&2; exit 1; }
[ -x "$QV_IMAGE" ] || die "no qv-image at $QV_IMAGE (build first, or pass its path)"

# ------------------------------------------------------------------ packages
missing=()
for p in gocryptfs cryfs fuse2fs e2fsprogs fuse3 python3; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# ------------------------------------------------------------------ work area and teardown
WORK="$(mktemp -d "${QV_BENCH_DIR:-/var/tmp}/qv-image-bench.XXXXXX")"
export XDG_RUNTIME_DIR="$WORK/run"
mkdir -m 0700 "$XDG_RUNTIME_DIR"
A_IMG="$WORK/a/bench.sparsebundle"; A_MNT="$WORK/a/mnt"
B_IMG="$WORK/b/plain-ext4.img";     B_MNT="$WORK/b/mnt"
C_DIR="$WORK/c/cipher";             C_MNT="$WORK/c/mnt"
D_DIR="$WORK/d/basedir";            D_MNT="$WORK/d/mnt"
E_MNT="$WORK/e/plain"
mkdir -p "$WORK/a" "$A_MNT" "$WORK/b" "$B_MNT" "$C_DIR" "$C_MNT" "$D_DIR" "$D_MNT" "$E_MNT"
# The passwords of the encrypted stacks exist only in this shell's memory and
# reach the programs on their standard input (printf is a builtin: no command line).
PW="$(head -c 24 /dev/urandom | base64)"
export CRYFS_FRONTEND=noninteractive CRYFS_NO_UPDATE_CHECK=true

is_mounted() { findmnt -rn --mountpoint "$1" >/dev/null 2>&1; }

cleanup() {
  set +e
  is_mounted "$A_MNT" && "$QV_IMAGE" detach "$A_MNT" -force >/dev/null 2>&1
  for m in "$A_MNT" "$B_MNT" "$C_MNT" "$D_MNT"; do
    is_mounted "$m" && { fusermount3 -uz "$m" 2>/dev/null || $SUDO umount -l "$m"; }
  done
  # Anything still serving a file of the work area (a device process, a daemon).
  for dir in /proc/[0-9]*; do
    pid="${dir#/proc/}"
    [ "$pid" = "$$" ] && continue
    if tr '\0' ' ' 2>/dev/null < "$dir/cmdline" | grep -qF "$WORK"; then kill -9 "$pid" 2>/dev/null; fi
  done
  for m in $(findmnt -rn -o TARGET | grep -F "$WORK" | sort -r); do
    fusermount3 -uz "$m" 2>/dev/null || $SUDO umount -l "$m"
  done
  findmnt -rn -o TARGET | grep -qF "$WORK" || rm -rf "$WORK"
}
trap cleanup EXIT

# ------------------------------------------------------------------ the five stacks
# Images are sized for the data plus room for the file system's own.
DISK_MIB=$((MIB + MIB / 4 + 512))

mount_a() {
  printf '%s' "$PW" | "$QV_IMAGE" attach "$A_IMG" -mountpoint "$A_MNT" -noverify -noautofsck -stdinpass -nobrowse
}
umount_a() { "$QV_IMAGE" detach "$A_MNT"; }
# The same speed options qv-image gives its own fuse2fs mounts (src/image/Helpers.h).
mount_b() { fuse2fs "$B_IMG" "$B_MNT" -o big_writes,max_write=131072 >/dev/null; }
umount_b() { fusermount3 -u "$B_MNT"; }
mount_c() { printf '%s\n' "$PW" | gocryptfs -q "$C_DIR" "$C_MNT"; }
umount_c() { fusermount3 -u "$C_MNT"; }
mount_d() { printf '%s\n' "$PW" | cryfs "$D_DIR" "$D_MNT" >/dev/null 2>&1; }
umount_d() { fusermount3 -u "$D_MNT"; }
mount_e() { :; }
umount_e() { :; }

echo "Setting up in $WORK ($MIB MiB, $FILES files)"
printf '%s' "$PW" | "$QV_IMAGE" create -encryption AES-256 -stdinpass -size "${DISK_MIB}m" -type SPARSEBUNDLE \
  -volname Bench -fs HFS+J -ov "$A_IMG" >/dev/null
truncate -s "${DISK_MIB}M" "$B_IMG"
# The same file system qv-image makes on its disks (src/image/CreateVerb.cpp),
# so that a/b is the price of the encryption and nothing else.
mkfs.ext4 -q -F -b 4096 -O ^extent,^64bit -m 0 -L Bench -E root_owner="$(id -u):$(id -g)" "$B_IMG"
printf '%s\n' "$PW" | gocryptfs -init -q "$C_DIR" >/dev/null
for s in a b c d e; do "mount_$s"; done
mnt_of() { case "$1" in a) echo "$A_MNT";; b) echo "$B_MNT";; c) echo "$C_MNT";; d) echo "$D_MNT";; e) echo "$E_MNT";; esac; }
backing_of() { case "$1" in a) echo "$A_IMG";; b) echo "$B_IMG";; c) echo "$C_DIR";; d) echo "$D_DIR";; e) echo "$E_MNT";; esac; }

# The data to write: random, so that no layer can take a short cut on zeros, and
# read from the page cache so that the source costs nothing.
SRC="$WORK/source.bin"
head -c "$((MIB * 1048576))" /dev/urandom > "$SRC"
cat "$SRC" > /dev/null
# Nothing of the setup may still be on its way to the disk when a stack is timed.
sync

# ------------------------------------------------------------------ measurements
now() { date +%s.%N; }
rate() { awk -v n="$1" -v a="$2" -v b="$3" 'BEGIN { t = b - a; if (t <= 0) t = 1e-9; printf "%.1f", n / t }'; }

# Forget every cached page of stack $1 (and of what lies beneath it).
drop_caches() {
  sync
  if [ "$(id -u)" -eq 0 ]; then
    echo 3 > /proc/sys/vm/drop_caches
  else
    "umount_$1"; "mount_$1"
    python3 - "$(backing_of "$1")" <<'EOF'
import os, sys
root = sys.argv[1]
paths = [root] if os.path.isfile(root) else [os.path.join(d, f) for d, _, fs in os.walk(root) for f in fs]
for p in paths:
    try:
        fd = os.open(p, os.O_RDONLY)
        os.posix_fadvise(fd, 0, 0, os.POSIX_FADV_DONTNEED)
        os.close(fd)
    except OSError:
        pass
EOF
  fi
}

small_files() {
  python3 - "$1" "$FILES" <<'EOF'
import os, sys
d, n = sys.argv[1], int(sys.argv[2])
os.makedirs(d, exist_ok=True)
body = os.urandom(1024)
for i in range(n):
    sub = os.path.join(d, "%03d" % (i // 500))
    if i % 500 == 0:
        os.makedirs(sub, exist_ok=True)
    with open(os.path.join(sub, "f%05d" % i), "wb") as f:
        f.write(body)
os.sync()
# A file system in user space flushes on an fsync, not on sync(2).
fd = os.open(os.path.join(d, "last"), os.O_WRONLY | os.O_CREAT, 0o644)
os.fsync(fd)
os.close(fd)
EOF
}

# Every stack runs once per round, the rounds one after the other, and each
# figure is the median over the rounds: the state the machine is left in by
# whatever ran just before (how much of the recent write-back went to which
# disk, which decides how far the kernel lets each one run ahead) weighs on
# one round, not on the result.
ROUNDS="${QV_BENCH_ROUNDS:-3}"
# The per-round figures, space-separated; the medians are read through namerefs in row().
declare -A WS=() RS=() FS=() W=() R=() F=()
for round in $(seq "$ROUNDS"); do
  for s in ${QV_BENCH_STACKS:-a b c d e}; do
    m="$(mnt_of "$s")"
    echo "  round $round/$ROUNDS on ($s) $m"
    sync
    t0=$(now); dd if="$SRC" of="$m/big" bs=1M conv=fsync status=none; t1=$(now)
    WS[$s]+=" $(rate "$MIB" "$t0" "$t1")"
    drop_caches "$s"
    t0=$(now); dd if="$m/big" of=/dev/null bs=1M status=none; t1=$(now)
    RS[$s]+=" $(rate "$MIB" "$t0" "$t1")"
    rm -f "$m/big"
    rm -rf "$m/small"
    sync
    t0=$(now); small_files "$m/small"; t1=$(now)
    FS[$s]+=" $(rate "$FILES" "$t0" "$t1")"
  done
done
median() { tr ' ' '\n' <<<"$1" | awk 'NF' | sort -g | awk '{ v[NR] = $1 } END { if (NR == 0) print 0; else if (NR % 2) print v[(NR + 1) / 2]; else printf "%.1f", (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
for s in a b c d e; do
  W[$s]=$(median "${WS[$s]:-}"); R[$s]=$(median "${RS[$s]:-}"); F[$s]=$(median "${FS[$s]:-}")
done

# ------------------------------------------------------------------ report
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b <= 0) print "n/a"; else printf "%.2f", a / b }'; }
met() { awk -v r="$1" -v t="$2" -v strict="$3" 'BEGIN { if (r == "n/a") print "n/a"; else if (strict ? r > t : r >= t) print "met"; else print "NOT met" }'; }

echo
echo "qv-image ($(basename "$QV_IMAGE"), layer ${QV_IMAGE_LAYER:-default}) against fuse2fs on plain ext4, gocryptfs, CryFS and the plain disk; medians of $ROUNDS rounds"
# Every stack is a chain of processes; with few cores they compete for them,
# so the ratios depend on the machine.
echo "on $(nproc) CPUs, kernel $(uname -r)"
printf '%-22s %10s %10s %10s %10s %10s %7s %7s  %-14s %-10s\n' \
  test "(a)qv-img" "(b)fuse2fs" "(c)gocrypt" "(d)cryfs" "(e)plain" "a/b" "a/d" "a >= 0.8 b" "a > d"
row() {
  local name="$1"; local -n v="$2"
  local ab ad
  ab=$(ratio "${v[a]}" "${v[b]}"); ad=$(ratio "${v[a]}" "${v[d]}")
  printf '%-22s %10s %10s %10s %10s %10s %7s %7s  %-14s %-10s\n' "$name" \
    "${v[a]}" "${v[b]}" "${v[c]}" "${v[d]}" "${v[e]}" "$ab" "$ad" "$(met "$ab" 0.8 0)" "$(met "$ad" 1 1)"
}
row "write ${MIB} MiB (MiB/s)" W
row "cold read (MiB/s)" R
row "${FILES} files (files/s)" F
