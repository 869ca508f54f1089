#!/usr/bin/env bash
# The fuzzing gate of ./test.sh: builds the libFuzzer targets in the asan configuration (Clang,
# ASan+UBSan) and runs each over its corpus in fuzz/corpus/<name>, then for a fixed number of
# mutations from a fixed seed. The same checkout passes or fails the same way every time; the
# corpus is where earlier findings stay, and scripts/fuzz-long.sh is the one that looks for new
# ones. Fails on the first crash, leak, sanitizer report or hang; the input that did it is kept
# in build/asan/fuzz-artifacts/.
#
#   scripts/fuzz.sh [target names...]
#
# QUELLIX_FUZZ_RUNS (runs per target, corpus included) and QUELLIX_FUZZ_SEED change the budget.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/setup.sh
quellix_use_ccache

runs=${QUELLIX_FUZZ_RUNS:-20000}
seed=${QUELLIX_FUZZ_SEED:-1}

cmake --preset asan >/dev/null
cmake --build --preset asan -j "$(nproc)" --target fuzzers

artifacts=build/asan/fuzz-artifacts
mkdir -p "$artifacts"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
# Qt seeds its hashes at random, and the fuzzer learns from compared values, addresses among
# them: a fixed hash seed and no address randomisation keep one run's path like the next.
export QT_HASH_SEED=0
same_addresses=()
if setarch "$(uname -m)" -R true 2>/dev/null; then
  same_addresses=(setarch "$(uname -m)" -R)
fi

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  mapfile -t targets <build/asan/fuzz/fuzz-targets.txt
fi

for name in "${targets[@]}"; do
  binary=build/asan/fuzz/fuzz_$name
  # No time limit and no rereading of the corpus folders: both would make a run depend on
  # how fast the machine is. The timeout only catches a hang.
  options=(-seed="$seed" -runs="$runs" -reload=0 -timeout=10 -rss_limit_mb=2048
           -print_final_stats=1 -artifact_prefix="$artifacts/$name-")
  [ -f "fuzz/dict/$name.dict" ] && options+=(-dict="fuzz/dict/$name.dict")
  # New inputs go to the first folder, a scratch one: the tree's corpus stays as it is.
  mkdir -p "$scratch/$name"
  echo "-- $name: corpus and $runs runs from seed $seed"
  if ! "${same_addresses[@]}" "$binary" "${options[@]}" "$scratch/$name" "fuzz/corpus/$name" >"$scratch/$name.log" 2>&1; then
    tail -n 60 "$scratch/$name.log"
    echo "fuzz_$name failed; the input is in $artifacts/" >&2
    exit 1
  fi
  grep -E '^stat::(number_of_executed_units|new_units_added|average_exec_per_sec)' \
    "$scratch/$name.log" | sed 's/^/   /' || true
done
