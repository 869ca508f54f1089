#!/usr/bin/env bash
# Builds the fuzz preset (Clang, libFuzzer, ASan+UBSan) and runs every fuzz target for a short
# while over its seed corpus in fuzz/corpus/<name>. Fails on the first crash, leak, sanitizer
# report or hang; the input that did it is kept in build/fuzz/artifacts/.
#
#   scripts/fuzz.sh [seconds per target] [target names...]
#
# New inputs the fuzzer finds go to a scratch folder, not into the tree; add one to
# fuzz/corpus/<name> by hand when it is worth keeping.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-${QUELLIX_FUZZ_SECONDS:-20}}
shift || true

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)"

artifacts=build/fuzz/artifacts
mkdir -p "$artifacts"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  mapfile -t targets <build/fuzz/fuzz/fuzz-targets.txt
fi

for name in "${targets[@]}"; do
  binary=build/fuzz/fuzz/fuzz_$name
  options=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
           -artifact_prefix="$artifacts/$name-")
  [ -f "fuzz/dict/$name.dict" ] && options+=(-dict="fuzz/dict/$name.dict")
  mkdir -p "$scratch/$name"
  echo "-- $name: ${seconds}s"
  if ! "$binary" "${options[@]}" "$scratch/$name" "fuzz/corpus/$name" >"$scratch/$name.log" 2>&1; then
    tail -n 60 "$scratch/$name.log"
    echo "fuzz_$name failed; the input is in $artifacts/" >&2
    exit 1
  fi
  grep -E '^stat::(number_of_executed_units|average_exec_per_sec)' "$scratch/$name.log" | sed 's/^/   /' || true
done
