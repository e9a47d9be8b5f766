#!/usr/bin/env python3
"""The credits plugin's cost at 300 and 3,000 threads, for one build or two side by side.

    python3 bench/measure_credits.py BUILD [BASE_BUILD] [--rounds N] [--seconds S]

Each round runs emberline_bench_credits of every build in turn, in a frozen simulated headset of
each profile, so that both builds meet the same load; the table gives medians over the rounds:
CPU time per thread of each step, its user-mode part where the benchmark reports it, heap
allocations per iteration, and the whole output tick against the same run's floor. Then the peak
resident memory of `emberline --no-power --credits` over S seconds in a live generic-3000
headset, once per round and build.
"""

import argparse
import csv
import io
import statistics
import subprocess

PROFILES = ("generic-300", "generic-3000")
STEPS = ("BM_Floor", "BM_Snapshot", "BM_Delta", "BM_OutputTick")


def bench(build, profile):
    out = subprocess.run(
        [f"{build}/sim/emberline-sim", "run", "--frozen", "--profile", profile, "--",
         f"{build}/bench/emberline_bench_credits", "--benchmark_min_time=1",
         "--benchmark_format=csv"],
        capture_output=True, text=True, check=True).stdout
    rows = {row["name"]: row for row in csv.DictReader(io.StringIO(out[out.index("name,"):]))}
    floor = float(rows["BM_Floor"]["per_thread"])
    result = {}
    for step in STEPS:
        row = rows[step]
        user = row.get("user_per_thread") or ""
        result[step] = (float(row["per_thread"]) * 1e6, float(user) * 1e6 if user else None,
                        float(row["allocs"]), float(row["per_thread"]) / floor)
    return result


def peak_rss(build, seconds):
    err = subprocess.run(
        [f"{build}/sim/emberline-sim", "run", "--profile", "generic-3000", "--",
         f"{build}/bench/emberline_measure", f"{build}/emberline", "--no-power", "-c",
         "--credits", "-t", str(seconds)],
        capture_output=True, text=True, check=True).stderr
    return int(err.strip().splitlines()[-1].split()[3])


def median(values):
    values = [v for v in values if v is not None]
    return statistics.median(values) if values else None


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("builds", nargs="+")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=int, default=20)
    args = parser.parse_args()

    runs = {(b, p): [] for b in args.builds for p in PROFILES}
    rss = {b: [] for b in args.builds}
    for _ in range(args.rounds):
        for profile in PROFILES:
            for build in args.builds:
                runs[build, profile].append(bench(build, profile))
        for build in args.builds:
            rss[build].append(peak_rss(build, args.seconds))

    for profile in PROFILES:
        print(f"{profile}, median of {args.rounds} rounds")
        print(f"  {'build':40} {'step':14} {'us/thread':>9} {'user us':>8} {'allocs':>8} "
              f"{'x floor':>8}")
        for build in args.builds:
            for step in STEPS:
                values = [r[step] for r in runs[build, profile]]
                per_thread, user, allocs, ratio = (median(v[i] for v in values) for i in range(4))
                user_text = f"{user:8.3f}" if user is not None else f"{'-':>8}"
                print(f"  {build:40} {step:14} {per_thread:9.3f} {user_text} {allocs:8.0f} "
                      f"{ratio:8.2f}")
    print(f"peak resident memory of --no-power --credits, generic-3000, {args.seconds} s (KiB)")
    for build in args.builds:
        print(f"  {build:40} median {statistics.median(rss[build]):6.0f}  "
              f"all {' '.join(str(v) for v in rss[build])}")


if __name__ == "__main__":
    main()
