#!/usr/bin/env bash
# Installs the Debian 12 packages this project needs; does nothing when they are there.
#   scripts/bootstrap.sh run    what building and running iac needs
#   scripts/bootstrap.sh test   that, plus tests, sanitizers, the Windows build and Wine
#   scripts/bootstrap.sh fuzz   what building iac needs, plus clang and its libFuzzer and
#                               sanitizer runtimes (scripts/fuzz.sh)
#   scripts/bootstrap.sh bench  what building iac needs, plus Google Benchmark and what
#                               scripts/bench.sh runs and compares against
set -euo pipefail

run_pkgs=(g++ make cmake pkg-config ccache libboost-dev nlohmann-json3-dev libcli11-dev
          libhivex-dev ntfs-3g-dev)
# python3 runs the scripts that write test hives (scripts/reg2hive.py, the generators).
test_pkgs=(python3 libgtest-dev libgmock-dev libbenchmark-dev libhivex-bin ntfs-3g clang-format
           g++-mingw-w64-x86-64-posix wine wine64)
# libclang_rt.fuzzer*.a and the sanitizer runtimes come with libclang-rt-dev, which clang
# only recommends.
fuzz_pkgs=(clang libclang-rt-dev)
# GNU time reports each process's peak memory; reglookup and hivexget (libhivex-bin) read the
# same registry key for comparison.
bench_pkgs=(libbenchmark-dev python3 time reglookup libhivex-bin)

case "${1:-test}" in
  run) want=("${run_pkgs[@]}") ;;
  test) want=("${run_pkgs[@]}" "${test_pkgs[@]}") ;;
  fuzz) want=("${run_pkgs[@]}" "${fuzz_pkgs[@]}") ;;
  bench) want=("${run_pkgs[@]}" "${bench_pkgs[@]}") ;;
  *) echo "usage: $0 [run|test|fuzz|bench]" >&2; exit 2 ;;
esac

missing=()
for p in "${want[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "bootstrap: missing packages: ${missing[*]}; run as root or install them" >&2
  exit 1
fi
echo "bootstrap: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
