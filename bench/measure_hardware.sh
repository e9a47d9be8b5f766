#!/usr/bin/env bash
# Whole-process cost of --all against a power-only run, side by side in one simulated headset of
# each generation that has instrumented hardware:
#   bash bench/measure_hardware.sh [BUILD_DIR] [SECONDS] [PROFILE...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build/normal}" && pwd)
seconds=${2:-60}
shift $(($# >= 2 ? 2 : $#))
profiles=("$@")
[[ ${#profiles[@]} -eq 0 ]] && profiles=(fennick brantley)

for profile in "${profiles[@]}"; do
  echo "== $profile: emberline --all -s 10 -o 1000 against emberline -s 10 -o 1000, ${seconds}s"
  "$build/sim/emberline-sim" run --profile "$profile" -- bash -c "
    '$build/bench/emberline_measure' '$build/emberline' --all -s 10 -o 1000 -t $seconds \
        >/dev/null 2>/tmp/all.err &
    '$build/bench/emberline_measure' '$build/emberline' -s 10 -o 1000 -t $seconds \
        >/dev/null 2>/tmp/power.err &
    wait
    read -r au as ac arss < <(tail -n 1 /tmp/all.err)
    read -r pu ps pc prss < <(tail -n 1 /tmp/power.err)
    printf '%-12s %8s %8s %8s %10s\n' process user_s sys_s cpu_s maxrss_kib
    printf '%-12s %8s %8s %8s %10s\n' all \$au \$as \$ac \$arss
    printf '%-12s %8s %8s %8s %10s\n' power_only \$pu \$ps \$pc \$prss
    awk -v a=\$ac -v p=\$pc -v ar=\$arss -v pr=\$prss 'BEGIN {
      if (p > 0) printf \"cpu ratio all/power_only: %.2f\n\", a / p
      if (pr > 0) printf \"peak rss ratio all/power_only: %.2f\n\", ar / pr }'
  "
done
