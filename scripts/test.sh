#!/usr/bin/env bash
# Builds and runs the whole suite twice: a normal build (gcc), then one clang build with
# AddressSanitizer and UndefinedBehaviorSanitizer whose libraries also carry libFuzzer's coverage
# hooks, so that the same build serves the sanitizer suite and the fuzz targets. Threaded code runs
# a third time under ThreadSanitizer, built for those tests alone. The tool and its in-process
# tests are also cross-built for arm64 and run under qemu, and the normal build's binary goes
# through short fault runs and an accelerated soak in the simulated headset. Every parser is also
# fuzzed briefly in the clang build.
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

# Two lanes. The builds (and the fuzzing, which needs nothing else) run one after another in the
# background, at a lower priority, in a process group of their own so that a failed step ends them
# whole; each marks its end with a file. In the foreground, the normal build, then each set of
# tests as soon as its build is there: most end-to-end tests wait on the headset's clock and leave
# the cores idle.
lane=$(mktemp -d)
trap '[[ -z ${builds_pid-} ]] || kill -- "-$builds_pid" 2>/dev/null || true; rm -rf "$lane"' EXIT
# Nobody debugs a CI build: without debug information the gcc builds compile a third faster.
release=(-DCMAKE_BUILD_TYPE=Release "-DCMAKE_CXX_FLAGS_RELEASE=-O2 -DNDEBUG")
builds() {
  set -euo pipefail
  step() {
    local name=$1
    shift
    if "$@" >"$lane/$name.log" 2>&1; then touch "$lane/$name.ok"; else touch "$lane/failed"; exit 1; fi
  }
  step asan bash -c 'cmake -C scripts/clang-sanitize.cmake -S . -B build/asan -DEMBERLINE_WERROR=ON \
    >/dev/null && cmake --build build/asan -j "$(nproc)"'
  step arm64 bash scripts/build-arm64.sh --build-only build/arm64 build/normal "${release[@]}"
  # The tests that run threads of the tool's (label "threads"), and what they run: the tool and
  # the simulated headset.
  step tsan bash -c 'cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DEMBERLINE_WERROR=ON -DEMBERLINE_TSAN=ON -DEMBERLINE_BENCH=OFF \
    "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG" >/dev/null &&
    cmake --build build/tsan -j "$(nproc)" --target emberline emberline-sim \
      emberline_trace_thread_tests emberline_dsp_worker_thread_tests \
      emberline_thermal_thread_tests emberline_e2e_thermals emberline_e2e_dsp_trace'
  step fuzz bash scripts/fuzz.sh --runs 20000 --build build/asan
}
# Waits for a step of the builds, shows its output, and stops the run if the builds failed.
await() {
  stamp "waiting for $1"
  until [[ -e $lane/$1.ok ]]; do
    # Ended without a mark (a signal, say): a zombie until reaped, so its state tells.
    if [[ -e $lane/failed || $(ps -o stat= -p "$builds_pid" || true) != [^Z]* ]]; then
      cat "$lane"/*.log
      echo "== the builds failed" >&2
      exit 1
    fi
    sleep 1
  done
  cat "$lane/$1.log"
}

stamp "in the background: build/asan (clang: ASan, UBSan and the fuzzers' coverage hooks)," \
  "build/arm64, build/tsan, fuzzing"
export lane
export -f builds
release_words=$(printf '%q ' "${release[@]}")
setsid nice -n 10 bash -c "release=($release_words); builds" &
builds_pid=$!

stamp "build/normal"
bash scripts/build.sh build/normal -DEMBERLINE_WERROR=ON "${release[@]}"

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

await asan
stamp "tests of build/asan"
run_tests build/asan

await arm64
stamp "build/arm64: the tool and its in-process tests under qemu"
bash scripts/build-arm64.sh build/arm64 build/normal "${release[@]}"

await tsan
stamp "tests of build/tsan"
run_tests build/tsan -L threads

await fuzz
stamp "done"
