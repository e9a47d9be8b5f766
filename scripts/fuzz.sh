#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang and runs each for a fixed number of inputs,
# starting from a copy of its corpus in the build tree; the repository's corpus is never written.
#   fuzz.sh [--runs N] [--build DIR]      (defaults: 20000 runs, build/fuzz)
# Prints one line per target and exits non-zero if any target crashed; the crashing input and the
# log stay in DIR/artifacts and DIR/logs.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
runs=20000
dir=$root/build/fuzz
while [[ $# -gt 0 ]]; do
  case $1 in
    --runs) runs=$2; shift 2 ;;
    --build) dir=$2; shift 2 ;;
    *) echo "usage: fuzz.sh [--runs N] [--build DIR]" >&2; exit 2 ;;
  esac
done
[[ $dir = /* ]] || dir=$PWD/$dir

# Each target with the longest input worth trying: a few ticks of its node, or a few blocks of
# the FIFO.
targets=(
  proc_stat:4096 time_in_state:4096 thread_time_in_state:4096 gpu_power_nodes:512
  logcat_ravelin:4096 logcat_dsp:4096 logcat_window:64 dsp_trace:16384 dram_samples:4096
  rails:1024 charge:128 json:1024 command_line:512
)

# Only the targets and the libraries below them: no simulated headset, benchmarks or tests.
cmake -S "$root" -B "$dir" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DEMBERLINE_FUZZ=ON -DEMBERLINE_BENCH=OFF -DEMBERLINE_SIM=OFF >/dev/null
build_targets=()
for entry in "${targets[@]}"; do build_targets+=(--target "${entry%%:*}_fuzz"); done
cmake --build "$dir" -j "$(nproc)" "${build_targets[@]}" >/dev/null

failed=0
mkdir -p "$dir/logs" "$dir/artifacts"
for entry in "${targets[@]}"; do
  name=${entry%%:*}
  max_len=${entry##*:}
  corpus=$dir/corpus/$name
  mkdir -p "$corpus" "$dir/artifacts/$name"
  cp -n "$root/fuzz/corpus/$name/"* "$corpus/" 2>/dev/null || true
  log=$dir/logs/$name.log
  # stdout closed: the command line's help text would otherwise fill the log.
  if "$dir/fuzz/${name}_fuzz" -runs="$runs" -max_len="$max_len" -close_fd_mask=1 \
    -artifact_prefix="$dir/artifacts/$name/" "$corpus" >"$log" 2>&1; then
    result=ok
  else
    result="CRASH (log $log)"
    failed=1
  fi
  done_runs=$(sed -n 's/^Done \([0-9]*\) runs.*/\1/p' "$log" | tail -1)
  printf '%-22s %10s runs  %s\n' "$name" "${done_runs:-?}" "$result"
done
exit $failed
