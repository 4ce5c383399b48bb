#!/usr/bin/env bash
# Inventories the embedded default recorded machine and prints it for a person.
# Extra arguments go to `iac collect` (try --help).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh run
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target iac >/dev/null
exec build/release/bin/iac collect "$@"
