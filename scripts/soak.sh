#!/usr/bin/env bash
# Long runs of `emberline --all`, watched for leaks.
#   soak.sh [--ticks N] [--build DIR] [--seed S]
#       the binary itself at 10 ms periods in the live headset, for N sample ticks of wall time
#   soak.sh --accelerated [--ticks N] [--build DIR] [--profiles P,Q,...]
#       the engine and plugins on a virtual loop clock (a sleep costs no time), N sample ticks on
#       each generation's profile, with descriptors, threads and heap every N/10 ticks
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
if [[ "${1-}" != "--accelerated" ]]; then
  exec python3 "$root/scripts/soak.py" "$@"
fi
shift
ticks=1000000
build=build/normal
profiles=generic,brantley,fennick,maplet,dorrin
while [[ $# -gt 0 ]]; do
  case "$1" in
    --ticks) ticks=$2; shift 2 ;;
    --build) build=$2; shift 2 ;;
    --profiles) profiles=$2; shift 2 ;;
    *) echo "soak.sh: unknown option $1" >&2; exit 2 ;;
  esac
done
every=$((ticks / 10))
((every > 0)) || every=1
failed=0
IFS=, read -ra names <<<"$profiles"
for profile in "${names[@]}"; do
  echo "== $profile: --all -s 10 -o 1000, $ticks sample ticks"
  start=$SECONDS
  if "$build/sim/emberline-sim" run --profile "$profile" -- \
    "$build/bench/emberline_accelerated_soak" "$ticks" "$every" --all -s 10 -o 1000; then
    echo "   $((SECONDS - start)) s"
  else
    echo "   FAILED after $((SECONDS - start)) s"
    failed=1
  fi
done
exit $failed
