#!/usr/bin/env bash
# Builds and runs the whole suite twice: a normal build, then AddressSanitizer with
# UndefinedBehaviorSanitizer. Threaded code runs a third time under ThreadSanitizer. Between the
# first two, the tool and its in-process tests are cross-built for arm64 and run under qemu, and
# the normal build's binary goes through short fault runs and a short soak in the simulated
# headset. Last, every parser is fuzzed briefly in a clang build.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh
echo "== format"
bash scripts/check-format.sh

run_suite() {
  local dir=$1
  shift
  echo "== $dir"
  bash scripts/build.sh "$dir" -DEMBERLINE_WERROR=ON "$@"
  (cd "$dir" && ctest --output-on-failure --timeout 300 -j "$(nproc)" ${CTEST_ARGS:-})
}

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1

run_suite build/normal
# Both need the simulated headset; where it cannot be made, the e2e tests above were skipped too.
if build/normal/sim/emberline-sim run --frozen -- true 2>/dev/null; then
  echo "== fault runs"
  bash scripts/fault-runs.sh --runs 20 --seed 31 --build build/normal
  echo "== soak"
  bash scripts/soak.sh --accelerated --ticks 100000 --build build/normal
else
  echo "== fault runs and soak skipped: the simulated headset cannot be made here"
fi
# The same code cross-built for arm64, its in-process tests run under qemu.
echo "== build/arm64"
bash scripts/build-arm64.sh build/arm64 build/normal
run_suite build/asan -DEMBERLINE_SANITIZE=ON -DEMBERLINE_BENCH=OFF
CTEST_ARGS="-L threads" run_suite build/tsan -DEMBERLINE_TSAN=ON -DEMBERLINE_BENCH=OFF
echo "== fuzz"
bash scripts/fuzz.sh --runs 20000 --build build/fuzz
