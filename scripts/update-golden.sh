#!/usr/bin/env bash
# Makes the golden files of the texts the tool prints, with the tool itself in a frozen simulated
# headset: for each profile, the whole --help text and the schema, as text (labels, section rows)
# and as CSV (full keys), of the default run, of --all, and of --all with the options it leaves
# out. A run's standard error, when it has any, goes beside its output as NAME.stderr.
#   update-golden.sh [--build DIR] [--out DIR] [PROFILE...]
# Defaults: build/normal, tests/golden, every profile. Run it only when a text is meant to change,
# and commit the new files with that change. tests/check_golden.sh compares against them.
# Exit status 77: the headset cannot be made here.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/normal
out=$root/tests/golden
profiles=()
while [[ $# -gt 0 ]]; do
  case $1 in
    --build) build=$2 && shift 2 ;;
    --out) out=$2 && shift 2 ;;
    *) profiles+=("$1") && shift ;;
  esac
done
[[ ${#profiles[@]} -eq 0 ]] && profiles=(generic fennick maplet dorrin brantley generic-300 generic-3000)
build=$(cd "$build" && pwd)

# Runs inside the headset: $1 the tool, $2 where the files go.
read -r -d '' inside <<'EOF' || true
set -eu
tool=$1 dest=$2
# A Quillon rail's key holds its position in the listing of /sys/class/powercap, which is the file
# system's own order. Moved aside and back in one order or the other, a tmpfs lists them in the
# order of their names, so that the keys are the same on every machine.
cap=/sys/class/powercap aside=/sys/class/.powercap-aside
if [ -d $cap ]; then
  want=$(LC_ALL=C ls $cap | tr '\n' ' ')
  mkdir $aside
  for names in "$want" "$(printf '%s\n' $want | sort -r | tr '\n' ' ')"; do
    [ "$(ls -U $cap | tr '\n' ' ')" = "$want" ] && break
    for d in $names; do mv $cap/$d $aside/; done
    for d in $names; do mv $aside/$d $cap/; done
  done
  rmdir $aside
  if [ "$(ls -U $cap | tr '\n' ' ')" != "$want" ]; then
    echo "Skipped: the rails cannot be put in order on this file system ($(stat -f -c %T $cap))"
    exit 77
  fi
fi
run() {
  name=$1
  shift
  status=0
  "$tool" "$@" >"$dest/$name" 2>"$dest/$name.stderr" || status=$?
  [ -s "$dest/$name.stderr" ] || rm "$dest/$name.stderr"
  if [ $status -ne 0 ]; then
    echo "emberline $*: exit status $status" >&2
    cat "$dest/$name.stderr" >&2
    exit 1
  fi
}
run help.txt --help
run schema.txt --schema
run schema.csv --schema --csv
run schema-all.txt --schema --all
run schema-all.csv --schema --all --csv
set -- --all -c -e 0.3 --cycle --timing --time-plugins --tail /sys/class/power_supply/battery/voltage_now
run schema-more.txt --schema "$@"
run schema-more.csv --schema --csv "$@"
EOF

# The layout and the runs take a fraction of a second on a tmpfs.
base=${TMPDIR:-/tmp}
[[ -w /dev/shm && $(stat -f -c %T /dev/shm) == tmpfs ]] && base=/dev/shm
for profile in "${profiles[@]}"; do
  state=$(mktemp -d "$base/emberline-golden.XXXXXX")
  status=0
  mkdir "$state/golden"
  "$build/sim/emberline-sim" run --frozen --profile "$profile" --state "$state" -- \
    sh -c "$inside" golden "$build/emberline" "$state/golden" || status=$?
  if [[ $status -eq 0 ]]; then
    rm -rf "${out:?}/$profile"
    mkdir -p "$out/$profile"
    cp "$state/golden/"* "$out/$profile/"
  fi
  rm -rf "$state"
  if [[ $status -eq 125 ]]; then
    echo "Skipped: the simulated headset cannot be made here"
    exit 77
  elif [[ $status -eq 77 ]]; then
    exit 77
  elif [[ $status -ne 0 ]]; then
    echo "update-golden.sh: $profile: the headset's runs failed (exit status $status)" >&2
    exit "$status"
  fi
done
