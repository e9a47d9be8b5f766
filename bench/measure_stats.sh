#!/usr/bin/env bash
# Whole-process CPU of a stats run beside mpstat (Debian sysstat) reading the same simulated
# /proc/stat, for the same time, in one live simulated headset; "engine" is the same run without
# --stats, to tell the plugin's share from the loop's and the rendering's:
#   bash bench/measure_stats.sh [BUILD_DIR] [SECONDS] [EXTRA EMBERLINE OPTIONS...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build/normal}" && pwd)
seconds=${2:-60}
extra=("${@:3}")
command -v mpstat >/dev/null || { echo "mpstat missing: bash scripts/setup.sh" >&2; exit 2; }

"$build/sim/emberline-sim" run -- bash -c '
  build=$1 seconds=$2; shift 2
  "$build/bench/emberline_measure" "$build/emberline" --no-power --stats -o 1000 \
      -t "$seconds" "$@" >/dev/null 2>/tmp/emberline.err &
  "$build/bench/emberline_measure" mpstat -P ALL 1 "$seconds" >/dev/null 2>/tmp/mpstat.err &
  "$build/bench/emberline_measure" "$build/emberline" --no-power -o 1000 -t "$seconds" \
      >/dev/null 2>/tmp/engine.err &
  wait
  read -r gu gs gc grss < <(tail -n 1 /tmp/engine.err)
  read -r eu es ec erss < <(tail -n 1 /tmp/emberline.err)
  read -r mu ms mc mrss < <(tail -n 1 /tmp/mpstat.err)
  printf "%-10s %8s %8s %8s %10s %14s\n" process user_s sys_s cpu_s maxrss_kib cpu_ms_per_report
  awk -v n="$seconds" -v u="$eu" -v s="$es" -v c="$ec" -v r="$erss" \
      '"'"'BEGIN { printf "%-10s %8s %8s %8s %10s %14.3f\n", "emberline", u, s, c, r, 1000 * c / n }'"'"'
  awk -v n="$seconds" -v u="$mu" -v s="$ms" -v c="$mc" -v r="$mrss" \
      '"'"'BEGIN { printf "%-10s %8s %8s %8s %10s %14.3f\n", "mpstat", u, s, c, r, 1000 * c / n }'"'"'
  awk -v n="$seconds" -v u="$gu" -v s="$gs" -v c="$gc" -v r="$grss" \
      '"'"'BEGIN { printf "%-10s %8s %8s %8s %10s %14.3f\n", "engine", u, s, c, r, 1000 * c / n }'"'"'
  awk -v e="$ec" -v m="$mc" '"'"'BEGIN { if (m > 0) printf "cpu ratio emberline/mpstat: %.2f\n", e / m }'"'"'
' measure "$build" "$seconds" "${extra[@]}"
