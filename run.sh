#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds Quellix and starts it. Extra arguments go to
# quellix (for example ./run.sh --taps).
set -euo pipefail
cd "$(dirname "$0")"
source scripts/setup.sh
quellix_install_packages

cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target quellix
exec ./build/release/src/quellix "$@"
