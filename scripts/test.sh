#!/usr/bin/env bash
# Builds everything and runs every test: native (dev), sanitizers (asan), and the Windows
# build under Wine (mingw).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh test
jobs=$(nproc)
for preset in dev asan mingw; do
  echo "== $preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  ctest --preset "$preset" -j "$jobs"
done
scripts/check-format.sh
