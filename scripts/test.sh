#!/usr/bin/env bash
# Builds and runs the whole suite twice: a normal build (gcc), then one clang build with
# AddressSanitizer and UndefinedBehaviorSanitizer whose libraries also carry libFuzzer's coverage
# hooks, so that the same build serves the sanitizer suite and the fuzz targets. Threaded code runs
# a third time under ThreadSanitizer, built for those tests alone. The tool and its in-process
# tests are also cross-built for arm64 and run under qemu, and the normal build's binary goes
# through short fault runs and an accelerated soak in the simulated headset. Last, every parser is
# fuzzed briefly in the clang build.
#
# Most end-to-end tests wait on the headset's clock and leave the cores idle, so the next builds
# compile in the background (at a lower priority) while the tests of the last one run.
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

# A background job runs in a process group of its own, so that a failed step ends it whole; its
# output is shown when it is waited for.
logs=$(mktemp -d)
background=()
trap 'for pid in "${background[@]}"; do kill -- "-$pid" 2>/dev/null || true; done; rm -rf "$logs"' EXIT
start_background() {
  local name=$1
  shift
  setsid nice -n 10 "$@" >"$logs/$name" 2>&1 &
  background+=("$!")
  eval "pid_$name=$!"
}
finish_background() {
  local name=$1 pid_var="pid_$1" status=0
  wait "${!pid_var}" || status=$?
  cat "$logs/$name"
  if ((status != 0)); then
    echo "== $name failed with status $status" >&2
    exit 1
  fi
}

# Nobody debugs a CI build: without debug information the gcc builds compile a third faster.
release=(-DCMAKE_BUILD_TYPE=Release "-DCMAKE_CXX_FLAGS_RELEASE=-O2 -DNDEBUG")

stamp "build/normal"
bash scripts/build.sh build/normal -DEMBERLINE_WERROR=ON "${release[@]}"

stamp "build/asan in the background (clang: ASan, UBSan and the fuzzers' coverage hooks)"
cmake -C scripts/clang-sanitize.cmake -S "$root" -B build/asan -DEMBERLINE_WERROR=ON >/dev/null
start_background asan cmake --build build/asan -j "$(nproc)"

stamp "tests of build/normal"
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
stamp "waiting for build/asan"
finish_background asan

# The same code cross-built for arm64, and the ThreadSanitizer build of the tests that run threads
# of the tool's (label "threads") and of what they run: the tool and the simulated headset.
stamp "build/arm64 and build/tsan in the background"
start_background arm64_tsan bash -c '
  set -e
  bash scripts/build-arm64.sh --build-only build/arm64 build/normal "$@"
  echo "== build build/tsan"
  cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DEMBERLINE_WERROR=ON \
    -DEMBERLINE_TSAN=ON -DEMBERLINE_BENCH=OFF "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG" \
    >/dev/null
  cmake --build build/tsan -j "$(nproc)" --target emberline emberline-sim \
    emberline_trace_thread_tests emberline_dsp_worker_thread_tests \
    emberline_thermal_thread_tests emberline_e2e_thermals emberline_e2e_dsp_trace' \
  arm64 "${release[@]}"

stamp "tests of build/asan"
run_tests build/asan
stamp "waiting for build/arm64 and build/tsan"
finish_background arm64_tsan

stamp "build/arm64: the tool and its in-process tests under qemu"
bash scripts/build-arm64.sh build/arm64 build/normal "${release[@]}"

stamp "tests of build/tsan"
run_tests build/tsan -L threads

stamp "fuzz"
bash scripts/fuzz.sh --runs 20000 --build build/asan

stamp "done"
