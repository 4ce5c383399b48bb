#!/usr/bin/env bash
# Fails when a C++ file differs from clang-format's layout.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files -co --exclude-standard '*.cpp' '*.h' | xargs -r clang-format --dry-run --Werror
