#!/usr/bin/env bash
# The long forms of what CI runs briefly, one after the other, on the normal build: 200 fault runs,
# the accelerated soak of 1000000 ticks on each generation's profile (a few minutes each), the
# wall-clock soak of 1000000 ticks (about 2.8 hours) and 2000000 inputs per fuzz target (a few
# hours).
# Each part prints its own summary; the script fails if any part failed.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh
bash scripts/build.sh build/normal
failed=0
bash scripts/fault-runs.sh --runs 200 --build build/normal || failed=1
bash scripts/soak.sh --accelerated --ticks 1000000 --build build/normal || failed=1
bash scripts/soak.sh --ticks 1000000 --build build/normal || failed=1
bash scripts/fuzz.sh --runs 2000000 --build build/fuzz || failed=1
exit $failed
