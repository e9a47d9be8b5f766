"""tools/emberline-report compare: the calibration of its intervals on synthetic autocorrelated
series, and the command on runs whose answers are worked out by hand."""

import importlib.util
import json
import math
import unittest

import numpy as np

from common import DATA, Case, run_text, tool
from emberline_report import inference

# Student's t 0.975 quantile on Welch's 50/17 degrees of freedom: two sides of three values
# whose variances are 1 and 4.
T_50_17DF = 3.2187586145329


def ar1(rng, count, n, phi, mean, sd):
    """`count` stationary AR(1) series of n readings with marginal standard deviation `sd`."""
    x = np.empty((count, n))
    x[:, 0] = rng.standard_normal(count) * sd
    shocks = rng.standard_normal((count, n)) * sd * math.sqrt(1 - phi * phi)
    for i in range(1, n):
        x[:, i] = phi * x[:, i - 1] + shocks[:, i]
    return mean + x


def verdicts(a, b):
    return [inference.verdict(inference.difference_interval(
        inference.dependent_mean(x), inference.dependent_mean(y))) for x, y in zip(a, b)]


class Inference(unittest.TestCase):
    """Power readings resemble their neighbours; an AR(1) series with phi 0.95 is that in the
    extreme, with about 15 independent readings in 600."""

    def test_same_mean_gives_none_where_an_independent_interval_would_not(self):
        rng = np.random.default_rng(20261125)
        a, b = ar1(rng, 2000, 600, 0.95, 4.0, 0.4), ar1(rng, 2000, 600, 0.95, 4.0, 0.4)
        self.assertGreaterEqual(verdicts(a, b).count("none") / len(a), 0.90)
        # The series are hard enough: treating readings as independent finds a difference in
        # most pairs.
        half = 1.96 * np.sqrt(a.var(axis=1, ddof=1) / 600 + b.var(axis=1, ddof=1) / 600)
        self.assertGreater(np.mean(np.abs(b.mean(axis=1) - a.mean(axis=1)) > half), 0.5)

    def test_a_three_percent_shift_is_found_with_enough_readings(self):
        rng = np.random.default_rng(3)
        a, b = ar1(rng, 40, 19200, 0.95, 4.0, 0.4), ar1(rng, 40, 19200, 0.95, 4.12, 0.4)
        self.assertEqual(set(verdicts(a, b)), {"higher"})
        self.assertEqual(set(verdicts(b, a)), {"lower"})

    def test_t_quantiles(self):
        # Closed forms for 1 and 2 degrees of freedom, tables for whole ones, and for Welch's,
        # which are rarely whole, the density integrated numerically (Simpson, 20000 steps).
        for df, want in ((1, math.tan(0.475 * math.pi)), (2, 0.95 / math.sqrt(0.04875)),
                         (4, 2.7764451052), (30, 2.0422724563), (2.5, 3.5746548420),
                         (1e9, 1.9599639845)):
            with self.subTest(df=df):
                self.assertAlmostEqual(inference.t_quantile(0.975, df), want, places=8)

    def test_dependent_mean_against_its_definition(self):
        # Lag-1 correlated readings whose positive pairs end after the first: lag M = 1, and
        # the variance is (c0 + 2 c1) / (n - 3) with c_k the mean product at lag k.
        x = np.array([3.0, 3.4, 2.9, 2.2, 2.6, 3.5, 3.3, 2.4, 2.7, 3.1, 2.8, 2.5])
        d = x - x.mean()
        c = [np.dot(d[:len(x) - k], d[k:]) / (len(x) - k) for k in range(2)]
        e = inference.dependent_mean(x)
        np.testing.assert_allclose([e.mean, e.variance, e.df],
                                   [x.mean(), (c[0] + 2 * c[1]) / (len(x) - 3), len(x) / 3], 1e-12)
        # Under 8 readings is too short to tell, though their lag would allow an interval.
        self.assertEqual([inference.dependent_mean(x[:n]) is None for n in (7, 8)],
                         [True, False])


class Command(Case):
    def compare(self, *args):
        code, out, err = tool("compare", *args, "--json")
        self.assertEqual(code, 0, err)
        return json.loads(out)

    def test_several_runs_a_side_compare_run_means_and_energies(self):
        # Constant runs of 4 s, their nulls bridged: means 1, 2, 3 against 5, 7, 9 W, so Welch's
        # delta 5, standard error sqrt(1/3 + 4/3) on 50/17 degrees of freedom; energies 4 times
        # the means.
        a, b = ([self.file("%s%d.csv" % (side, p), run_text([p, None, p, p, p], gpu))
                 for p in powers]
                for side, powers, gpu in (("a", (1, 2, 3), 0.5), ("b", (5, 7, 9), 0.25)))
        result = self.compare(*a, "--vs", *b)
        self.assertEqual((result["a_runs"], result["b_runs"]), (3, 3))
        self.assertEqual(list(result["fields"]), ["power.raw", "power.smooth", "stats.gpu.util"])
        self.assertEqual(list(result["energy"]), ["power.raw", "power.smooth"])
        half = T_50_17DF * math.sqrt(5 / 3)
        for row, unit, verdict, numbers in (
                (result["fields"]["power.raw"], "W", "higher", (2, 7, 5, 250, 5 - half, 5 + half)),
                (result["energy"]["power.raw"], "J", "higher",
                 (8, 28, 20, 250, 20 - 4 * half, 20 + 4 * half)),
                # The same in every run: an interval of no width; fractions as percentages.
                (result["fields"]["stats.gpu.util"], "%", "lower", (50, 25, -25, -50, -25, -25))):
            self.assertEqual((row["unit"], row["verdict"]), (unit, verdict))
            np.testing.assert_allclose([row[k] for k in ("a_mean", "b_mean", "delta", "delta_pct")]
                                       + row["ci95"], numbers, rtol=0, atol=1e-6)
        image = self.dir / "ab.svg"
        plot = ["--plot", image] if importlib.util.find_spec("matplotlib") else []
        code, out, err = tool("compare", *a, "--vs", *b, "--fields", "power.raw", *plot)
        self.assertEqual((code, err), (0, ""))
        self.assertTrue(not plot or image.read_bytes().startswith(b"<?xml"))
        lines = out.split("\n")
        self.assertEqual(lines[0], "A: 3 runs, 15 reports: " + ", ".join(a))
        self.assertEqual(lines[2], "95% intervals of B - A, several runs a side: Welch's t on "
                                   "the runs' means")
        self.assertEqual(lines[4].split(), ["field", "unit", "A", "mean", "B", "mean", "delta",
                                            "delta", "%", "95%", "low", "95%", "high", "verdict"])
        self.assertEqual(lines[5].split(), ["power.raw", "W", "2.000", "7.000", "+5.000",
                                            "+250.00%", "%+.3f" % (5 - half), "%+.3f" % (5 + half),
                                            "higher"])
        self.assertEqual(lines[8].split()[:5], ["power.raw", "J", "8.000", "28.000", "+20.000"])

    def test_one_run_a_side(self):
        raw = [float("%.3f" % p) for p in 4 + ar1(np.random.default_rng(9), 1, 300, 0.9, 0, 0.5)[0]]
        shifted = [float("%.3f" % (p + 1)) for p in raw]
        a, b = self.file("a.csv", run_text(raw)), self.file("b.csv", run_text(shifted))
        result = self.compare(a, "--vs", b)
        self.assertEqual(result["energy"], {})
        # The same readings shifted: the interval, the one for autocorrelated readings, holds the
        # shift and leaves 0 out.
        shift = result["fields"]["power.raw"]
        self.assertAlmostEqual(shift["delta"], 1.0, places=9)
        self.assertTrue(0 < shift["ci95"][0] < 1.0 < shift["ci95"][1], shift["ci95"])
        np.testing.assert_allclose(shift["ci95"], inference.difference_interval(
            inference.dependent_mean(raw), inference.dependent_mean(shifted)), rtol=1e-9)
        # The same in both: an interval of no width, which shows no difference.
        self.assertEqual((shift["verdict"], result["fields"]["stats.gpu.util"]["verdict"]),
                         ("higher", "none"))

    def test_fail_above_gates_on_higher_fields(self):
        a = self.file("a.csv", run_text([2.0] * 10, gpu=0.2))
        b = self.file("b.csv", run_text([2.5] * 10, gpu=0.4))
        gpu_only = self.file("g.csv", run_text([2.0] * 10, gpu=0.4))
        gate = "emberline-report: higher by more than "
        for args, code, err_text in (
                ([a, "--vs", b, "--fail-above", "20"], 1,
                 gate + "20%: power.raw (+25.00%), power.smooth (+25.00%)\n"),
                ([a, "--vs", b, "--fail-above", "25"], 0, ""),
                ([b, "--vs", a, "--fail-above", "0"], 0, ""),
                # By default only power is watched; --fields chooses what is.
                ([a, "--vs", gpu_only, "--fail-above", "5"], 0, ""),
                ([a, "--vs", gpu_only, "--fail-above", "5", "--fields", "stats.*"], 1,
                 gate + "5%: stats.gpu.util (+100.00%)\n")):
            with self.subTest(args=args[2:]):
                got, out, err = tool("compare", *args)
                self.assertEqual((got, err), (code, err_text))
                self.assertIn("A: 1 run, 10 reports: ", out)

    def test_damaged_and_mismatched_input_is_one_line_and_exit_2(self):
        good = self.file("good.csv", run_text([1, 2, 3, 4, 5]))
        other = self.file("other.csv", "sequence,timestamp,thermals.fan_rpm\n1,1.0,1200\n")
        for args, message in (
                ([good, good, "--vs", good], "cannot compare one run with several"),
                ([good, "--vs", other], "the two sides have no numeric field in common"),
                ([good, "--vs", good, "--fields", "thermals.*"],
                 "no numeric field matches 'thermals.*'; both sides have: power.raw"),
                ([good], "compare needs files on both sides"),
                ([good, "--vs", good, "--plot", "x.pdf"], "must end in .png or .svg"),
                ([good, "--vs", other, "--fields", "power.raw", "--fail-above", "nan"],
                 "--fail-above takes a percentage")):
            with self.subTest(message=message):
                self.fails(["compare"] + args, message)
        cut = self.file("cut.csv", run_text([1, 2, 3, 4, 5]) + "6,6.000,1795434")
        code, out, err = tool("compare", good, "--vs", cut)
        self.assertEqual((code, err.count("ignored the cut-off last line")), (0, 1), err)

    def test_every_profile_and_format(self):
        # Three reports a side are too few for an interval, which is said as "none"; several runs
        # a side give the energy of every power field but a spread.
        for profile in ("generic", "fennick", "brantley"):
            with self.subTest(profile=profile):
                a, b = (DATA / ("all-" + profile + ext) for ext in (".csv", ".json"))
                fields = self.compare(a, "--vs", b)["fields"]
                self.assertGreater(len(fields), 50)
                self.assertEqual({(f["verdict"], *f["ci95"]) for f in fields.values()},
                                 {("none", None, None)})
                twice = self.compare(a, a, "--vs", b, b)
                self.assertEqual(list(twice["energy"]), [
                    name for name, f in twice["fields"].items()
                    if f["unit"] == "W" and not name.endswith("_stdev")])


if __name__ == "__main__":
    unittest.main(verbosity=2)
