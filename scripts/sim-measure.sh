#!/usr/bin/env bash
# Measures the simulated headset: time from `emberline-sim run` to COMMAND's start (median of
# RUNS runs) and the sim's CPU use while its model runs (percent of one core over SECONDS).
#   sim-measure.sh BUILD_DIR [RUNS] [SECONDS]
set -euo pipefail
sim=$1/sim/emberline-sim
runs=${2:-20}
seconds=${3:-20}

startups=()
for ((i = 0; i < runs; i++)); do
  start=$(date +%s%N)
  started=$("$sim" run --frozen -- date +%s%N)
  startups+=($(((started - start) / 1000)))
done
median=$(printf '%s\n' "${startups[@]}" | sort -n | awk '{a[NR] = $1} END {print a[int((NR + 1) / 2)]}')
echo "start-up: median ${median} us over ${runs} runs (min $(printf '%s\n' "${startups[@]}" | sort -n | head -1) us)"

"$sim" run -- sleep $((seconds + 2)) &
pid=$!
ticks() { awk '{print $14 + $15}' "/proc/$pid/stat"; }
sleep 1
before=$(ticks)
sleep "$seconds"
after=$(ticks)
wait "$pid"
echo "model CPU: $(awk -v t=$((after - before)) -v hz="$(getconf CLK_TCK)" -v s="$seconds" \
  'BEGIN {printf "%.2f", 100 * t / hz / s}')% of one core over ${seconds} s"
