#!/usr/bin/env bash
# Randomised runs of the real tool in the simulated headset, one fault each:
#   fault-runs.sh [--runs N] [--seed S] [--build DIR] [--only K] [--keep]
exec python3 "$(dirname "$0")/fault_runs.py" "$@"
