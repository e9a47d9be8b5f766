#!/usr/bin/env bash
# Whole-process cost of a default power run against the least a sampler can do, side by side in
# one simulated headset:  bash bench/measure_process.sh [BUILD_DIR] [SECONDS]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build/normal}" && pwd)
seconds=${2:-60}

"$build/sim/emberline-sim" run -- bash -c "
  '$build/bench/emberline_measure' '$build/emberline' -s 10 -o 1000 -t $seconds \
      >/dev/null 2>/tmp/emberline.err &
  '$build/bench/emberline_measure' '$build/bench/reference_reader' $seconds \
      >/dev/null 2>/tmp/reference.err &
  wait
  read -r eu es ec erss < <(tail -n 1 /tmp/emberline.err)
  read -r ru rs rc rrss < <(tail -n 1 /tmp/reference.err)
  printf '%-10s %8s %8s %8s %10s\n' process user_s sys_s cpu_s maxrss_kib
  printf '%-10s %8s %8s %8s %10s\n' emberline \$eu \$es \$ec \$erss
  printf '%-10s %8s %8s %8s %10s\n' reference \$ru \$rs \$rc \$rrss
  awk -v e=\$ec -v r=\$rc 'BEGIN { if (r > 0) printf \"cpu ratio emberline/reference: %.2f\n\", e / r }'
"
