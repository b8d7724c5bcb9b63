#!/usr/bin/env bash
# Runs every fuzz target for a while: run-fuzzers.sh <fuzz build dir> <seconds per target>.
# Each target works on a fresh copy of its seed corpus in the build directory, so
# the repository stays as it is. A crash fails the run and leaves its input in
# <build>/fuzz-artifacts/<target>/ and the fuzzer's output in <build>/fuzz-logs/.
set -euo pipefail
build=$1
seconds=$2
here=$(cd "$(dirname "$0")" && pwd)
status=0
for seeds in "$here"/corpus/*/; do
  target=$(basename "$seeds")
  work="$build/fuzz-corpus/$target"
  artifacts="$build/fuzz-artifacts/$target"
  log="$build/fuzz-logs/$target.log"
  rm -rf "$work"
  mkdir -p "$work" "$artifacts" "$(dirname "$log")"
  cp "$seeds"* "$work"/
  dict=()
  [ -f "$here/$target.dict" ] && dict=(-dict="$here/$target.dict")
  echo "== $target: ${seconds}s"
  # The targets' own output (a refused container prints a line) is closed off;
  # libFuzzer and the sanitizers report through a descriptor of their own.
  rc=0
  "$build/fuzz/fuzz_$target" "$work" "${dict[@]}" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -close_fd_mask=3 -print_final_stats=1 -artifact_prefix="$artifacts/" >"$log" 2>&1 || rc=$?
  if [ "$rc" -ne 0 ]; then
    cat "$log" >&2
    echo "== $target FAILED (exit $rc); the input is in $artifacts" >&2
    status=1
  else
    grep -E '^stat::number_of_executed_units|^stat::new_units_added|DONE' "$log" || true
  fi
done
exit $status
