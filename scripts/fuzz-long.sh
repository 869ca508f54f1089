#!/usr/bin/env bash
# Open-ended fuzzing, for anyone with time to spare: runs each libFuzzer target (the asan
# configuration's, as scripts/fuzz.sh builds them) for a while from a random seed, and keeps
# what it finds in the tree:
#   - inputs that reach new code are merged into fuzz/corpus/<name>/ (only those that add
#     coverage to what is there);
#   - an input that crashes, leaks, trips a sanitizer or hangs is copied into
#     fuzz/corpus/<name>/ as well, so the gate of ./test.sh fails on it until it is fixed.
# Commit what it adds. Exits non-zero when a target found a fault.
#
#   scripts/fuzz-long.sh [seconds per target] [target names...]     (default 600 s, all)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/setup.sh
quellix_use_ccache

seconds=${1:-600}
shift || true

cmake --preset asan >/dev/null
cmake --build --preset asan -j "$(nproc)" --target fuzzers

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  mapfile -t targets <build/asan/fuzz/fuzz-targets.txt
fi

faults=0
for name in "${targets[@]}"; do
  binary=build/asan/fuzz/fuzz_$name
  corpus=fuzz/corpus/$name
  mkdir -p "$scratch/$name/new" "$scratch/$name/faults" "$corpus"
  options=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
           -artifact_prefix="$scratch/$name/faults/")
  [ -f "fuzz/dict/$name.dict" ] && options+=(-dict="fuzz/dict/$name.dict")
  echo "-- $name: ${seconds}s"
  status=0
  "$binary" "${options[@]}" "$scratch/$name/new" "$corpus" >"$scratch/$name.log" 2>&1 || status=$?

  before=$(find "$corpus" -type f | wc -l)
  "$binary" -merge=1 "$corpus" "$scratch/$name/new" >"$scratch/$name-merge.log" 2>&1 ||
    echo "   merging the new inputs failed: $(tail -n 1 "$scratch/$name-merge.log")" >&2
  echo "   $(($(find "$corpus" -type f | wc -l) - before)) new inputs in $corpus"

  found=("$scratch/$name/faults"/*)
  if [ -e "${found[0]}" ]; then
    faults=1
    tail -n 60 "$scratch/$name.log"
    cp "${found[@]}" "$corpus/"
    echo "fuzz_$name found a fault; the input is now in $corpus/: $(basename -a "${found[@]}" | tr '\n' ' ')" >&2
  elif [ "$status" -ne 0 ]; then
    faults=1
    tail -n 60 "$scratch/$name.log"
    echo "fuzz_$name failed without leaving an input" >&2
  fi
done
exit $faults
