#!/usr/bin/env bash
# Fails when a C++ file of the project differs from what clang-format makes of it.
#   check-format.sh [--fix]
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files '*.cpp' '*.h')
if [[ ${1-} == --fix ]]; then
  clang-format -i "${files[@]}"
else
  clang-format --dry-run -Werror "${files[@]}"
fi
