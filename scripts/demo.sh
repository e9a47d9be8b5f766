#!/usr/bin/env bash
# Builds everything, runs emberline for about ten seconds in the simulated headset, then compares
# two short runs of different workloads.
#   demo.sh [SIM OPTIONS] [-- EMBERLINE OPTIONS]
# e.g. demo.sh --profile fennick -- -c --json
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh
bash scripts/build.sh build/normal >/dev/null

sim_args=()
tool_args=()
if [[ " $* " == *" -- "* ]]; then
  while [[ $# -gt 0 && "$1" != "--" ]]; do
    sim_args+=("$1")
    shift
  done
  shift
fi
tool_args=("$@")
# Ten seconds unless the caller set a time of their own.
case " ${tool_args[*]-} " in
  *" -t "* | *" --time "* | *" --time="* | *" -t"[0-9]*) ;;
  *) tool_args=(-t 10 "${tool_args[@]}") ;;
esac

# The run also writes its reports to a file, which tools/emberline-report then summarises and
# plots under build/normal/demo/. The file stands in the sim's /data/local/tmp, which is the state
# directory's data/local/tmp here; the demo keeps its own state directory unless given one.
demo_dir=build/normal/demo
report_ext=csv
case " ${tool_args[*]-} " in
  *" -f "* | *" --file "* | *" --file="* | *" --inline "* | *" --schema "* | *" -p "* | *" --perfetto "*)
    report_ext= ;;
  *" -j "* | *" --json "*) report_ext=json ;;
  *" --csv "*) ;;
  *) tool_args+=(--csv) ;;
esac
state=
for ((i = 0; i < ${#sim_args[@]}; i++)); do
  case "${sim_args[i]}" in
    --state) state=${sim_args[i + 1]-} ;;
    --state=*) state=${sim_args[i]#--state=} ;;
  esac
done
if [[ -z "$state" ]]; then
  state=$demo_dir/state
  rm -rf "$state"
  sim_args+=(--state "$state")
fi
mkdir -p "$demo_dir"
[[ -n "$report_ext" ]] && tool_args+=(--file "/data/local/tmp/emberline-demo.$report_ext")
tool=build/normal/emberline
status=0
build/normal/sim/emberline-sim run "${sim_args[@]}" -- "$tool" "${tool_args[@]}" || status=$?
report=$demo_dir/emberline-demo.$report_ext
if [[ -n "$report_ext" && -s "$state/data/local/tmp/emberline-demo.$report_ext" ]]; then
  cp "$state/data/local/tmp/emberline-demo.$report_ext" "$report"
  plot_fields=()
  [[ " ${tool_args[*]} " == *" --no-power "* ]] && plot_fields=(--fields '*')
  echo
  echo "Report file: $report"
  tools/emberline-report summary "$report" | tee "$demo_dir/emberline-demo-summary.txt"
  tools/emberline-report plot "$report" -o "$demo_dir/emberline-demo.png" "${plot_fields[@]}" &&
    echo "Plot: $demo_dir/emberline-demo.png"
else
  echo "No CSV or JSON report file to summarise in this run." >&2
fi

# Last, two short runs of different workloads (the simulated headset's seed draws its idle and
# busy phases), reported every 100 ms, and whether the second draws more power than the first.
profile=()
for ((i = 0; i < ${#sim_args[@]}; i++)); do
  case "${sim_args[i]}" in
    --profile) profile=(--profile "${sim_args[i + 1]-}") ;;
    --profile=*) profile=("${sim_args[i]}") ;;
  esac
done
workloads=()
for seed in 1 3; do
  workload_state=$demo_dir/workload-$seed
  rm -rf "$workload_state"
  build/normal/sim/emberline-sim run "${profile[@]}" --seed "$seed" --state "$workload_state" -- \
    "$tool" -t 10 -s 50 -o 100 -q --csv --file "/data/local/tmp/workload-$seed.csv" || status=$?
  cp "$workload_state/data/local/tmp/workload-$seed.csv" "$demo_dir/" || status=1
  workloads+=("$demo_dir/workload-$seed.csv")
done
echo
echo "Two workloads compared (seeds 1 and 3, 10 s each):"
tools/emberline-report compare "${workloads[0]}" --vs "${workloads[1]}" \
  --plot "$demo_dir/workload-compare.png" | tee "$demo_dir/workload-compare.txt" &&
  echo "Plot: $demo_dir/workload-compare.png" || status=1
exit "$status"
