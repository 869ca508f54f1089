#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine and runs the whole test suite:
# format check, debug build (GCC) with every test, ASan+UBSan build (Clang) with the unit
# tests, a TSan build (Clang) of the audio-path tests, every fuzz target over its corpus and a
# fixed number of runs (built in the ASan configuration), and, as root with apt, the packages:
# the Debian package installed and purged again, and the portable folder. Each stage builds
# only what it runs; with ccache installed, a second run mostly reuses the first one's objects.
set -euo pipefail
cd "$(dirname "$0")"
source scripts/setup.sh
quellix_install_packages
quellix_use_ccache

jobs=$(nproc)

echo "== clang-format"
git ls-files -- '*.h' '*.cpp' | xargs clang-format --dry-run --Werror

echo "== debug build (GCC), all tests"
cmake --preset debug >/dev/null
cmake --build --preset debug -j "$jobs"
ctest --preset debug -j "$jobs" -LE packaging

echo "== ASan+UBSan build (Clang), unit tests"
cmake --preset asan >/dev/null
cmake --build --preset asan -j "$jobs" --target unit_tests
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --preset asan -j "$jobs" -L unit

echo "== TSan build (Clang), audio-path tests"
cmake --preset tsan >/dev/null
cmake --build --preset tsan -j "$jobs" --target tsan_tests
TSAN_OPTIONS=halt_on_error=1 ctest --preset tsan -L tsan

echo "== libFuzzer targets (Clang, ASan+UBSan), corpus and ${QUELLIX_FUZZ_RUNS:-20000} runs each"
scripts/fuzz.sh

echo "== packages (Debian package installed and purged, portable folder)"
if [ "$(id -u)" -eq 0 ] && command -v apt-get >/dev/null; then
  QUELLIX_PACKAGING_TESTS=1 ctest --preset debug -L packaging
else
  echo "skipped: installing a package needs root and apt-get"
fi
