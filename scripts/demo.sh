#!/usr/bin/env bash
# Builds everything and runs emberline for about ten seconds in the simulated headset.
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

exec build/normal/sim/emberline-sim run "${sim_args[@]}" -- build/normal/emberline "${tool_args[@]}"
