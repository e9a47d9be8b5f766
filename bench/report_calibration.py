#!/usr/bin/python3
"""The calibration of tools/emberline-report compare's intervals on synthetic AR(1) series, whose
marginal standard deviation is 10% of the mean, seeded so that every run prints the same table:
  bench/report_calibration.py [PAIRS]      (default 10000 pairs for the same-mean rows)
The test suite runs a smaller version of the first and shift rows
(tests/report/compare_test.py)."""

import sys
from pathlib import Path

import numpy as np

ROOT = Path(__file__).resolve().parents[1]
sys.path[:0] = [str(ROOT / "tools"), str(ROOT / "tests" / "report")]
from compare_test import ar1  # noqa: E402  (the series the test suite calibrates on)
from emberline_report import inference  # noqa: E402

MEAN = 4.0
SD = 0.4


def one_run_a_side(pairs, n, phi, shift, seed, chunk=500):
    """Shares of the verdicts, the share without an interval, and the share an interval that
    takes readings as independent finds a difference in."""
    rng = np.random.default_rng(seed)
    counts = {"none": 0, "higher": 0, "lower": 0}
    without = independent = 0
    for start in range(0, pairs, chunk):
        count = min(chunk, pairs - start)
        a = ar1(rng, count, n, phi, MEAN, SD)
        b = ar1(rng, count, n, phi, MEAN * (1 + shift), SD)
        for x, y in zip(a, b):
            interval = inference.difference_interval(inference.dependent_mean(x),
                                                     inference.dependent_mean(y))
            without += interval is None
            counts[inference.verdict(interval)] += 1
        half = 1.96 * np.sqrt(a.var(axis=1, ddof=1) / n + b.var(axis=1, ddof=1) / n)
        independent += int(np.sum(np.abs(b.mean(axis=1) - a.mean(axis=1)) > half))
    return ({k: v / pairs for k, v in counts.items()}, without / pairs, independent / pairs)


def several_runs_a_side(cases, runs, n, phi, seed):
    rng = np.random.default_rng(seed)
    means = ar1(rng, cases * 2 * runs, n, phi, MEAN, SD).mean(axis=1).reshape(cases, 2, runs)
    verdicts = [inference.verdict(inference.difference_interval(
        inference.independent_mean(list(a)), inference.independent_mean(list(b))))
        for a, b in means]
    return verdicts.count("none") / cases


def main():
    pairs = int(sys.argv[1]) if len(sys.argv) > 1 else 10000
    print("one run a side, same mean: pairs, phi, readings, share none, share without an "
          "interval, share an independent interval finds a difference")
    for phi, n, seed in ((0.95, 600, 1), (0.5, 600, 2), (0.0, 600, 3)):
        shares, without, independent = one_run_a_side(pairs, n, phi, 0.0, seed)
        print("  %d  %.2f  %d  %.3f  %.3f  %.3f" % (pairs, phi, n, shares["none"], without,
                                                  independent))
    print("one run a side, B 3% higher, phi 0.95: pairs, readings, share higher, share lower")
    for n in (600, 2400, 4800, 9600, 19200, 38400):
        shares, _, _ = one_run_a_side(200, n, 0.95, 0.03, 10 + n)
        print("  200  %d  %.3f  %.3f" % (n, shares["higher"], shares["lower"]))
    print("several runs a side, same mean, phi 0.95, 600 readings a run: cases, runs a side, "
          "share none")
    for runs in (2, 3, 5):
        print("  %d  %d  %.3f" % (pairs // 10, runs, several_runs_a_side(pairs // 10, runs, 600,
                                                                        0.95, 20 + runs)))


if __name__ == "__main__":
    main()
