#!/usr/bin/env bash
# A long run of `emberline --all` at 10 ms periods, watched for leaks:
#   soak.sh [--ticks N] [--build DIR] [--seed S]
exec python3 "$(dirname "$0")/soak.py" "$@"
