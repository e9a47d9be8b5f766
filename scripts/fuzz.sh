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
# the FIFO. The slowest per input come first, so that two cores finish together.
targets=(
  command_line:512 dsp_trace:16384 logcat_dsp:4096 logcat_ravelin:4096 proc_stat:4096
  time_in_state:4096 gpu_power_nodes:512 thread_time_in_state:4096 json:1024 rails:1024
  dram_samples:4096 logcat_window:64 charge:128
)

# A build that scripts/test.sh made for its sanitizer suite already holds the targets; otherwise
# only the targets and the libraries below them: no simulated headset or tests.
if ! grep -qs '^EMBERLINE_FUZZ:BOOL=ON$' "$dir/CMakeCache.txt"; then
  cmake -C "$root/scripts/clang-sanitize.cmake" -S "$root" -B "$dir" -DEMBERLINE_SIM=OFF >/dev/null
fi
build_targets=()
for entry in "${targets[@]}"; do build_targets+=(--target "${entry%%:*}_fuzz"); done
cmake --build "$dir" -j "$(nproc)" "${build_targets[@]}" >/dev/null

mkdir -p "$dir/logs" "$dir/artifacts"
# One target per core at a time; the lines come out in the table's order once all are done.
run_target() {
  local name=$1 max_len=$2
  local corpus=$dir/corpus/$name log=$dir/logs/$name.log
  mkdir -p "$corpus" "$dir/artifacts/$name"
  cp -n "$root/fuzz/corpus/$name/"* "$corpus/"
  # Both of the target's streams closed: the help texts and warnings of 20000 inputs cost more
  # than the parsing. The sanitizers and libFuzzer still report to the log.
  local result=ok
  "$dir/fuzz/${name}_fuzz" -runs="$runs" -max_len="$max_len" -close_fd_mask=3 \
    -artifact_prefix="$dir/artifacts/$name/" "$corpus" >"$log" 2>&1 || result="CRASH (log $log)"
  local done_runs
  # A crash ends the run before its summary: the last status line counts the inputs so far.
  done_runs=$(sed -n -e 's/^Done \([0-9]*\) runs.*/\1/p' -e 's/^#\([0-9]*\).*/\1/p' "$log" | tail -1)
  printf '%-22s %10s runs  %s\n' "$name" "${done_runs:-?}" "$result" >"$dir/logs/$name.result"
}
for entry in "${targets[@]}"; do
  while [[ $(jobs -rp | wc -l) -ge $(nproc) ]]; do wait -n || true; done
  run_target "${entry%%:*}" "${entry##*:}" &
done
wait

failed=0
for entry in "${targets[@]}"; do
  line=$(cat "$dir/logs/${entry%%:*}.result")
  echo "$line"
  [[ $line == *" ok" ]] || failed=1
done
exit $failed
