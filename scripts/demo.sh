#!/usr/bin/env bash
# Builds the tool and runs it for about ten seconds.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh
bash scripts/build.sh build/normal >/dev/null
exec build/normal/emberline --no-power --example -t 10 "$@"
