#!/usr/bin/env bash
# The DSP trace worker: records per second it takes with tracing on while the simulated DSP
# writes as fast as it can, against the same writer into a reader that only discards; then the
# worker's CPU over 20 s at the live agent's normal rate.
#   bash bench/measure_dsp_trace.sh BUILD_DIR
set -euo pipefail
B=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)/$(basename "$0")
fifo=/data/misc/dsp/HexagonTelemetrySharedFIFO
ticks() { awk '{print $14 + $15}' "$1"; }

case "${2-}" in
  --flood-inside)
    "$B/emberline" --no-power --dsp-trace -p -q -t 14 &
    tool=$!
    echo -n "tool, tracing on:  "
    "$B/bench/dsp_fifo_flood" "$fifo" 8
    wait "$tool"
    exit 0
    ;;
  --cpu-inside)
    "$B/emberline" --no-power --dsp-trace --json -t 22 >/data/local/tmp/reports.json 2>/dev/null &
    tool=$!
    sleep 1
    worker=$(dirname "$(grep -l DspTraceProcess /proc/$tool/task/*/comm | head -1)")
    w0=$(ticks "$worker/stat")
    sleep 20
    w1=$(ticks "$worker/stat")
    wait "$tool"
    records=$(grep -o '"num_slices":[0-9]*' /data/local/tmp/reports.json | awk -F: '{s += $2} END {print s}')
    echo "worker CPU: $(echo "scale=3; ($w1 - $w0) / $(getconf CLK_TCK)" | bc) s in 20 s," \
         "at $((records / 22)) records/s"
    exit 0
    ;;
esac

"$B/sim/emberline-sim" run --frozen -- bash "$here" "$B" --flood-inside
echo -n "discarding reader: "
"$B/bench/dsp_fifo_flood" --discard 8
"$B/sim/emberline-sim" run -- bash "$here" "$B" --cpu-inside
