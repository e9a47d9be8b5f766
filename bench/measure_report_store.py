#!/usr/bin/python3
"""Whole-process time and peak memory of tools/emberline-report's store, beside the baseline of
the same work from files:
  bench/measure_report_store.py [--postgresql URL] [--runs N]

- `store add` of a one-hour run reported every 10 ms (360,000 reports of the default fields) into
  a new SQLite store (and a PostgreSQL one with --postgresql; its emberline tables are dropped
  before each add), beside `summary` of the same file, which reads it the same way;
- `compare --db` of 50 runs against 50 (runs of 6,000 reports), beside `compare` of the 100
  files.

The runs are synthetic, in the tool's CSV form: power wanders as an AR(1) series. Each command
runs N times (default 3) after one warm-up; the median is printed."""

import argparse
import math
import os
import random
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
TOOL = str(ROOT / "tools" / "emberline-report")
HEADER = "sequence,timestamp,device_timestamp,power.raw,power.current,power.voltage,power.smooth," \
         "power.smooth_stdev"


def write_run(path, reports, period_s, seed):
    """A run of the default fields: battery current an AR(1) series around 1.2 A."""
    rng = random.Random(seed)
    start = 1795434000.0 + seed * 100000
    current, smooth, lines = 1.2, None, [HEADER]
    for i in range(1, reports + 1):
        current = 0.95 * current + 0.05 * 1.2 + rng.gauss(0, 0.05)
        voltage = 3.85 - 0.05 * current
        power = current * voltage
        smooth = power if smooth is None else 0.8 * smooth + 0.2 * power
        t = i * period_s
        lines.append("%d,%.3f,%.3f,%.3f,%.3f,%.3f,%.3f,%.3f" % (
            i, t, start + t, power, current, voltage, smooth, abs(power - smooth)))
    Path(path).write_text("\n".join(lines) + "\n")


def measure(command, runs, before=None):
    """Median wall seconds, CPU seconds and peak resident KiB of `command` over `runs` runs."""
    walls, cpus, peaks = [], [], []
    for number in range(runs + 1):
        if before:
            before()
        started = time.monotonic()
        child = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        _, status, usage = os.wait4(child.pid, 0)
        wall = time.monotonic() - started
        error = child.stderr.read().decode()
        child.stderr.close()
        if os.waitstatus_to_exitcode(status) != 0:
            sys.exit("failed: %s\n%s" % (" ".join(command), error))
        if number > 0:
            walls.append(wall)
            cpus.append(usage.ru_utime + usage.ru_stime)
            peaks.append(usage.ru_maxrss)
    return statistics.median(walls), statistics.median(cpus), statistics.median(peaks)


def drop_tables(url):
    import psycopg2
    with psycopg2.connect(url) as connection:
        connection.cursor().execute("DROP TABLE IF EXISTS emberline_fields, emberline_labels, "
                                    "emberline_runs, emberline_store")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--postgresql", metavar="URL")
    parser.add_argument("--runs", type=int, default=3)
    args = parser.parse_args()
    rows = []
    with tempfile.TemporaryDirectory() as directory:
        hour = os.path.join(directory, "hour.csv")
        write_run(hour, 360000, 0.01, 0)
        db = os.path.join(directory, "add.db")

        def fresh_sqlite():
            if os.path.exists(db):
                os.unlink(db)

        rows.append(("summary, one hour at 10 ms (baseline)",
                     measure([TOOL, "summary", hour], args.runs)))
        rows.append(("store add, one hour at 10 ms, SQLite",
                     measure([TOOL, "store", "add", db, hour], args.runs, fresh_sqlite)))
        if args.postgresql:
            rows.append(("store add, one hour at 10 ms, PostgreSQL",
                         measure([TOOL, "store", "add", args.postgresql, hour], args.runs,
                                 lambda: drop_tables(args.postgresql))))
        runs = [os.path.join(directory, "run%03d.csv" % i) for i in range(100)]
        for i, path in enumerate(runs):
            write_run(path, 6000, 0.1, i + 1)
        stores = [os.path.join(directory, "runs.db")]
        if args.postgresql:
            drop_tables(args.postgresql)
            stores.append(args.postgresql)
        for store in stores:
            for side, part in (("a", runs[:50]), ("b", runs[50:])):
                subprocess.run([TOOL, "store", "add", store] + part + ["--label", "side=" + side],
                               check=True, stdout=subprocess.DEVNULL)
        rows.append(("compare, 50 files against 50 (baseline)",
                     measure([TOOL, "compare"] + runs[:50] + ["--vs"] + runs[50:], args.runs)))
        for store, name in zip(stores, ("SQLite", "PostgreSQL")):
            rows.append(("compare --db, 50 runs against 50, " + name,
                         measure([TOOL, "compare", "--db", store, "--a", "side=a", "--b",
                                  "side=b"], args.runs)))
        if args.postgresql:
            drop_tables(args.postgresql)
    print("%-44s %8s %8s %10s" % ("median of %d" % args.runs, "wall s", "cpu s", "peak MiB"))
    for name, (wall, cpu, peak) in rows:
        print("%-44s %8.2f %8.2f %10.1f" % (name, wall, cpu, peak / 1024))


if __name__ == "__main__":
    main()
