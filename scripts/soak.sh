#!/usr/bin/env bash
# Long runs of `emberline --all`, watched for leaks.
#   soak.sh [--ticks N] [--build DIR] [--seed S]
#       the binary itself at 10 ms periods in the live headset, for N sample ticks of wall time
#   soak.sh --accelerated [--ticks N] [--build DIR] [--profiles P,Q,...] [--jobs J]
#       the engine and plugins on a virtual loop clock (a sleep costs no time), N sample ticks on
#       each generation's profile, with descriptors, threads and heap every N/10 ticks; J profiles
#       at once (default: one per core), their tables printed in the order given
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
if [[ "${1-}" != "--accelerated" ]]; then
  exec python3 "$root/scripts/soak.py" "$@"
fi
shift
ticks=1000000
build=build/normal
profiles=generic,brantley,fennick,maplet,dorrin
jobs=$(nproc)
while [[ $# -gt 0 ]]; do
  case "$1" in
    --ticks) ticks=$2; shift 2 ;;
    --build) build=$2; shift 2 ;;
    --profiles) profiles=$2; shift 2 ;;
    --jobs) jobs=$2; shift 2 ;;
    *) echo "soak.sh: unknown option $1" >&2; exit 2 ;;
  esac
done
every=$((ticks / 10))
((every > 0)) || every=1
IFS=, read -ra names <<<"$profiles"
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
soak_profile() {
  local profile=$1 start=$SECONDS
  echo "== $profile: --all -s 10 -o 1000, $ticks sample ticks"
  if "$build/sim/emberline-sim" run --profile "$profile" -- \
    "$build/bench/emberline_accelerated_soak" "$ticks" "$every" --all -s 10 -o 1000; then
    echo "   $((SECONDS - start)) s"
  else
    echo "   FAILED after $((SECONDS - start)) s"
    return 1
  fi
}
pids=()
for profile in "${names[@]}"; do
  while (($(jobs -rp | wc -l) >= jobs)); do wait -n || true; done
  soak_profile "$profile" >"$out/$profile" 2>&1 &
  pids+=($!)
done
failed=0
for i in "${!names[@]}"; do
  wait "${pids[$i]}" || failed=1
  cat "$out/${names[$i]}"
done
exit $failed
