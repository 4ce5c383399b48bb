#!/usr/bin/env bash
# Builds the bench preset, writes the synthetic machines (once: they are kept in
# build/bench/synthetic), then measures and prints one table: whole-process wall time and
# peak memory of iac against reglookup and hivexget on one key of a real hive, of a full
# inventory, and of the synthetic cases with their growth from 1,000 to 100,000 entries,
# plus in-process query times from ia_bench; each figure a median, with its target.
#   scripts/bench.sh [RUNS [BIG_RUNS]]   runs per small case (default 11), per 100,000-entry
#                                        case (default 5)
# See docs/performance.md.
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-11}
big_runs=${2:-5}
case "$runs$big_runs" in
  *[!0-9]*) echo "usage: $0 [RUNS [BIG_RUNS]]" >&2; exit 2 ;;
esac

scripts/bootstrap.sh bench
cmake --preset bench >/dev/null
cmake --build --preset bench -j 2 --target iac installedapps ia_bench >/dev/null
python3 scripts/gen-synthetic-machine.py --all build/bench/synthetic
python3 scripts/bench-table.py --bin build/bench/bin --synthetic build/bench/synthetic \
  --realdata ../shared/realdata --runs "$runs" --big-runs "$big_runs"
