#!/usr/bin/env bash
# Makes one profile's texts anew, as scripts/update-golden.sh does, and compares them byte for
# byte with tests/golden/PROFILE; a difference fails with a unified diff.
#   check_golden.sh SOURCE_DIR BUILD_DIR PROFILE
# Exit status 77 (skipped): the simulated headset cannot be made here.
set -uo pipefail
source_dir=$1 build_dir=$2 profile=$3
made=$(mktemp -d)
trap 'rm -rf "$made"' EXIT
bash "$source_dir/scripts/update-golden.sh" --build "$build_dir" --out "$made" "$profile" || exit
if ! diff -ru "$source_dir/tests/golden/$profile" "$made/$profile"; then
  echo "The tool's texts differ from tests/golden/$profile (above: - golden, + now). If that is" \
    "meant, run scripts/update-golden.sh and commit the new files with the change." >&2
  exit 1
fi
