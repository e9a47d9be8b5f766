#!/usr/bin/env bash
# Builds and runs the whole suite twice: a normal build (gcc), then one clang build with
# AddressSanitizer and UndefinedBehaviorSanitizer whose libraries also carry libFuzzer's coverage
# hooks, so that the same build serves the sanitizer suite and the fuzz targets. Threaded code runs
# a third time under ThreadSanitizer, built for those tests alone. Between the first two, the tool
# and its in-process tests are cross-built for arm64 and run under qemu, and the normal build's
# binary goes through short fault runs and an accelerated soak in the simulated headset. Last,
# every parser is fuzzed briefly in the clang build.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
# Each part's heading tells how far into the run it starts.
stamp() { echo "== $* (at $((SECONDS / 60)) min $((SECONDS % 60)) s)"; }
bash scripts/setup.sh
stamp format
bash scripts/check-format.sh

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1

run_tests() {
  local dir=$1
  shift
  (cd "$dir" && ctest --output-on-failure --timeout 300 -j "$(nproc)" "$@")
}

stamp "build/normal"
bash scripts/build.sh build/normal -DEMBERLINE_WERROR=ON
run_tests build/normal
# Both need the simulated headset; where it cannot be made, the e2e tests above were skipped too.
if build/normal/sim/emberline-sim run --frozen -- true 2>/dev/null; then
  stamp "fault runs"
  bash scripts/fault-runs.sh --runs 20 --seed 31 --build build/normal
  stamp "accelerated soak"
  bash scripts/soak.sh --accelerated --ticks 100000 --build build/normal
else
  stamp "fault runs and soak skipped: the simulated headset cannot be made here"
fi

# The same code cross-built for arm64, its in-process tests run under qemu.
stamp "build/arm64"
bash scripts/build-arm64.sh build/arm64 build/normal

stamp "build/asan (clang: ASan, UBSan and the fuzzers' coverage hooks)"
cmake -C scripts/clang-sanitize.cmake -S "$root" -B build/asan -DEMBERLINE_WERROR=ON >/dev/null
cmake --build build/asan -j "$(nproc)"
run_tests build/asan

# ThreadSanitizer for the tests that run threads of the tool's (label "threads"), and what they
# run: the tool and the simulated headset.
stamp "build/tsan"
cmake -S "$root" -B build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DEMBERLINE_WERROR=ON \
  -DEMBERLINE_TSAN=ON -DEMBERLINE_BENCH=OFF >/dev/null
cmake --build build/tsan -j "$(nproc)" --target emberline emberline-sim \
  emberline_trace_thread_tests emberline_dsp_worker_thread_tests emberline_thermal_thread_tests \
  emberline_e2e_thermals emberline_e2e_dsp_trace
run_tests build/tsan -L threads

stamp "fuzz"
bash scripts/fuzz.sh --runs 20000 --build build/asan

stamp "done"
