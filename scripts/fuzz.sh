#!/usr/bin/env bash
# Fuzzes every target of fuzz/ with libFuzzer for SECONDS each (default 600), two at a
# time, each over a copy of its corpus, and prints per target the inputs run, the coverage
# reached and any crash, leak or timeout file. Builds the fuzz preset first (clang, every
# library instrumented for coverage, ASan + UBSan) in build/fuzz.
#   scripts/fuzz.sh [SECONDS]
# FUZZ_JOBS (default 2) sets how many targets run at once; FUZZ_TARGETS (names separated
# by blanks) runs only those. Results stay in build/fuzz/runs/<date>/<target>/ (log,
# corpus, artifacts).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-600}
jobs=${FUZZ_JOBS:-2}
case "$seconds$jobs" in
  *[!0-9]*) echo "usage: $0 [SECONDS]  (FUZZ_JOBS a number)" >&2; exit 2 ;;
esac

scripts/bootstrap.sh fuzz
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)" >/dev/null

if [ -n "${FUZZ_TARGETS:-}" ]; then
  read -r -a targets <<<"$FUZZ_TARGETS"
else
  targets=()
  for dir in fuzz/corpus/*/; do targets+=("$(basename "$dir")"); done
fi
runs=build/fuzz/runs/$(date +%Y%m%d-%H%M%S)
mkdir -p "$runs"

# One target: a fresh copy of its corpus (libFuzzer adds what it finds there), its
# dictionary when it has one, a per-input timeout far above any input's real time so that
# only a hang trips it, the final stats.
fuzz_one() {
  local target=$1 dir=$runs/$1 dict=()
  mkdir -p "$dir/corpus" "$dir/artifacts"
  cp -r "fuzz/corpus/$target/." "$dir/corpus/"
  [ -f "fuzz/dict/$target.dict" ] && dict=(-dict="fuzz/dict/$target.dict")
  UBSAN_OPTIONS=print_stacktrace=1 LSAN_OPTIONS=suppressions=$PWD/fuzz/lsan.supp \
    "build/fuzz/bin/$target" -max_total_time="$seconds" \
    -timeout=25 -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$dir/artifacts/" \
    "${dict[@]}" "$dir/corpus" >"$dir/log" 2>&1 || true
}

echo "fuzz: ${#targets[@]} targets, ${seconds}s each, $jobs at a time, in $runs"
for target in "${targets[@]}"; do
  [ -x "build/fuzz/bin/$target" ] || { echo "fuzz: no build/fuzz/bin/$target" >&2; exit 1; }
  while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n || true; done
  fuzz_one "$target" &
done
wait

found=0
printf '%-20s %12s %8s %8s %8s  %s\n' target executions cov ft corpus findings
for target in "${targets[@]}"; do
  dir=$runs/$target
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/log" | tail -1)
  last=$(grep -E '^#[0-9]+.*cov: ' "$dir/log" | tail -1 || true)
  [ -n "$executions" ] || executions=$(sed -n 's/^#\([0-9]*\).*/\1/p' <<<"$last")
  cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$last")
  ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$last")
  corpus=$(find "$dir/corpus" -type f | wc -l)
  artifacts=$(find "$dir/artifacts" -type f | sort | tr '\n' ' ')
  [ -n "$artifacts" ] && found=1
  printf '%-20s %12s %8s %8s %8s  %s\n' "$target" "${executions:-?}" "${cov:-?}" "${ft:-?}" \
    "$corpus" "${artifacts:-none}"
done
if [ "$found" -ne 0 ]; then
  echo "fuzz: findings above; each log is beside its artifacts (…/<target>/log)" >&2
  exit 1
fi
