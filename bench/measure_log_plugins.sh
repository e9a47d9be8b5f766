#!/usr/bin/env bash
# Whole-process CPU of the two log plugins in a live simulated headset: emberline's own time and
# that of the logcat runs it waits for (shell and logcat), against a run with no plugin at all,
# side by side:  bash bench/measure_log_plugins.sh [BUILD_DIR] [SECONDS]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build/normal}" && pwd)
seconds=${2:-60}

"$build/sim/emberline-sim" run -- bash -c "
  hz=\$(getconf CLK_TCK)
  # utime stime cutime cstime, in clock ticks, of a running process
  ticks() { read -r -a f < /proc/\$1/stat; echo \"\${f[13]} \${f[14]} \${f[15]} \${f[16]}\"; }
  '$build/emberline' --no-power --ravelin --dsp -o 1000 -t $((seconds + 3)) >/dev/null 2>&1 &
  logs=\$!
  '$build/emberline' --no-power -o 1000 -t $((seconds + 3)) >/dev/null 2>&1 &
  none=\$!
  sleep 2
  read -r lu ls lcu lcs < <(ticks \$logs)
  read -r nu ns ncu ncs < <(ticks \$none)
  sleep $seconds
  read -r lu2 ls2 lcu2 lcs2 < <(ticks \$logs)
  read -r nu2 ns2 ncu2 ncs2 < <(ticks \$none)
  wait
  printf '%-28s %8s %8s %12s\n' 'over $seconds s' own_s children_s cpu_%_of_core
  awk -v hz=\$hz -v s=$seconds -v o=\$((lu2 + ls2 - lu - ls)) -v c=\$((lcu2 + lcs2 - lcu - lcs)) \
    'BEGIN {printf \"%-28s %8.2f %8.2f %12.2f\n\", \"--no-power --ravelin --dsp\", o / hz, c / hz, 100 * (o + c) / hz / s}'
  awk -v hz=\$hz -v s=$seconds -v o=\$((nu2 + ns2 - nu - ns)) -v c=\$((ncu2 + ncs2 - ncu - ncs)) \
    'BEGIN {printf \"%-28s %8.2f %8.2f %12.2f\n\", \"--no-power\", o / hz, c / hz, 100 * (o + c) / hz / s}'
"
