"""tools/emberline-report compare: the calibration of its intervals on synthetic autocorrelated
series, and the command on crafted runs whose answers are worked out by hand."""

import importlib.util
import json
import math
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

import numpy as np

TOOLS = Path(__file__).resolve().parents[2] / "tools"
sys.path.insert(0, str(TOOLS))
from emberline_report import inference  # noqa: E402

TOOL = str(TOOLS / "emberline-report")
T_975_4DF = 2.7764451051977987


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


class Calibration(unittest.TestCase):
    """Power readings resemble their neighbours; an AR(1) series with phi 0.95 is that in the
    extreme, with about 15 independent readings in 600."""

    def test_same_mean_gives_none_where_an_independent_interval_would_not(self):
        rng = np.random.default_rng(20261125)
        a, b = ar1(rng, 2000, 600, 0.95, 4.0, 0.4), ar1(rng, 2000, 600, 0.95, 4.0, 0.4)
        none = verdicts(a, b).count("none") / len(a)
        self.assertGreaterEqual(none, 0.90)
        # The series are hard enough: treating readings as independent finds a difference in
        # most pairs.
        half = 1.96 * np.sqrt(a.var(axis=1, ddof=1) / 600 + b.var(axis=1, ddof=1) / 600)
        self.assertGreater(np.mean(np.abs(b.mean(axis=1) - a.mean(axis=1)) > half), 0.5)

    def test_a_three_percent_shift_is_found_with_enough_readings(self):
        rng = np.random.default_rng(3)
        a, b = ar1(rng, 40, 19200, 0.95, 4.0, 0.4), ar1(rng, 40, 19200, 0.95, 4.12, 0.4)
        self.assertEqual(set(verdicts(a, b)), {"higher"})
        self.assertEqual(set(verdicts(b, a)), {"lower"})

    def test_several_runs_a_side_use_the_variation_between_runs(self):
        rng = np.random.default_rng(5)
        means = ar1(rng, 6000, 600, 0.95, 4.0, 0.4).mean(axis=1).reshape(1000, 2, 3)
        found = [inference.verdict(inference.difference_interval(
            inference.independent_mean(list(a)), inference.independent_mean(list(b))))
            for a, b in means]
        self.assertGreaterEqual(found.count("none") / len(found), 0.90)


class Intervals(unittest.TestCase):
    def test_t_quantiles(self):
        # Closed forms for 1 and 2 degrees of freedom, tables for whole ones, and for Welch's,
        # which are rarely whole, the density integrated numerically (Simpson, 20000 steps).
        for df, want in ((1, math.tan(0.475 * math.pi)), (2, 0.95 / math.sqrt(0.04875)),
                         (4, T_975_4DF), (30, 2.0422724563), (2.5, 3.5746548420),
                         (1e9, 1.9599639845)):
            with self.subTest(df=df):
                self.assertAlmostEqual(inference.t_quantile(0.975, df), want, places=8)

    def test_dependent_mean_against_its_definition(self):
        # Lag-1 correlated readings whose positive pairs end after the first: lag M = 1, and
        # the variance is (c0 + 2 c1) / (n - 3) with c_k the mean product at lag k.
        x = np.array([3.0, 3.4, 2.9, 2.2, 2.6, 3.5, 3.3, 2.4, 2.7, 3.1, 2.8, 2.5])
        d = x - x.mean()
        c = [np.dot(d[:len(x) - k], d[k:]) / (len(x) - k) for k in range(4)]
        self.assertGreater(c[0] + c[1], 0)
        self.assertLessEqual(c[2] + c[3], 0)
        e = inference.dependent_mean(x)
        self.assertAlmostEqual(e.mean, x.mean(), places=12)
        self.assertAlmostEqual(e.variance, (c[0] + 2 * c[1]) / (len(x) - 3), places=12)
        self.assertAlmostEqual(e.df, len(x) / 3)


def csv_run(raw, gpu=0.5, period=1.0, start=1795434001.0):
    """A run of len(raw) reports: power.raw and power.smooth as given, a GPU load fraction."""
    lines = ["sequence,timestamp,device_timestamp,power.raw,power.smooth,stats.gpu.util"]
    for i, power in enumerate(raw):
        t = (i + 1) * period
        lines.append("%d,%.3f,%.3f,%.3f,%.3f,%.5f" % (i + 1, t, start + t, power, power, gpu))
    return "\n".join(lines) + "\n"


def json_run(raw, gpu=0.5, period=1.0, start=1795434001.0):
    lines = []
    for i, power in enumerate(raw):
        t = (i + 1) * period
        lines.append('{"sequence":%d,"timestamp":%.3f,"device_timestamp":%.3f,"power":{"raw":%.3f,'
                     '"smooth":%.3f},"stats":{"gpu":{"util":%.5f}}}' % (i + 1, t, start + t,
                                                                      power, power, gpu))
    return "\n".join(lines) + "\n"


class Command(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.files = 0

    def tearDown(self):
        self.dir.cleanup()

    def file(self, text, ext="csv"):
        self.files += 1
        path = Path(self.dir.name, "run%d.%s" % (self.files, ext))
        path.write_text(text)
        return str(path)

    def run_tool(self, *args):
        r = subprocess.run([TOOL, "compare"] + list(args), capture_output=True, text=True,
                           timeout=120)
        return r.returncode, r.stdout, r.stderr

    def compare_json(self, *args):
        code, out, err = self.run_tool(*args, "--json")
        self.assertEqual(code, 0, err)
        return json.loads(out)

    def test_several_runs_a_side_compare_run_means_and_energies(self):
        # Constant runs: their means are 1, 2, 3 against 4, 5, 6 W, over 4 s each. Welch: delta
        # 3, standard error sqrt(2/3), 4 degrees of freedom; energies 4, 8, 12 against 16, 20, 24 J.
        a = [self.file(csv_run([p] * 5)) for p in (1, 2, 3)]
        b = [self.file(csv_run([p] * 5, gpu=0.25)) for p in (4, 5, 6)]
        result = self.compare_json(*a, "--vs", *b)
        self.assertEqual((result["a_runs"], result["b_runs"]), (3, 3))
        self.assertEqual(list(result["fields"]), ["power.raw", "power.smooth", "stats.gpu.util"])
        raw = result["fields"]["power.raw"]
        half = T_975_4DF * math.sqrt(2 / 3)
        self.assertEqual((raw["unit"], raw["verdict"]), ("W", "higher"))
        for key, want in (("a_mean", 2), ("b_mean", 5), ("delta", 3), ("delta_pct", 150)):
            self.assertAlmostEqual(raw[key], want, places=9, msg=key)
        self.assertAlmostEqual(raw["ci95"][0], 3 - half, places=6)
        self.assertAlmostEqual(raw["ci95"][1], 3 + half, places=6)
        gpu = result["fields"]["stats.gpu.util"]
        self.assertEqual((gpu["unit"], gpu["delta"], gpu["delta_pct"], gpu["ci95"],
                          gpu["verdict"]), ("%", -25.0, -50.0, [-25.0, -25.0], "lower"))
        self.assertEqual(list(result["energy"]), ["power.raw", "power.smooth"])
        energy = result["energy"]["power.raw"]
        half = T_975_4DF * math.sqrt(32 / 3)
        self.assertEqual((energy["unit"], energy["verdict"]), ("J", "higher"))
        self.assertAlmostEqual(energy["a_mean"], 8, places=9)
        self.assertAlmostEqual(energy["delta"], 12, places=9)
        self.assertAlmostEqual(energy["ci95"][0], 12 - half, places=6)

    def test_one_run_a_side_and_the_same_run_in_both_formats(self):
        rng = np.random.default_rng(9)
        raw = list(4 + ar1(rng, 1, 300, 0.9, 0, 0.5)[0])
        a_csv, a_json = self.file(csv_run(raw)), self.file(json_run(raw), "json")
        b = self.file(csv_run([p + 1 for p in raw], gpu=0.5))
        result = self.compare_json(a_csv, "--vs", b)
        self.assertEqual(result["energy"], {})
        shift = result["fields"]["power.raw"]
        self.assertAlmostEqual(shift["delta"], 1.0, places=3)
        # The same readings shifted: the interval holds the shift and leaves 0 out.
        self.assertLess(shift["ci95"][0], 1.0)
        self.assertGreater(shift["ci95"][1], 1.0)
        self.assertEqual(shift["verdict"], "higher")
        self.assertEqual(result["fields"]["stats.gpu.util"]["verdict"], "none")
        self.assertEqual(self.compare_json(a_csv, "--vs", b), self.compare_json(a_json, "--vs", b))
        same = self.compare_json(a_csv, "--vs", a_json)["fields"]["power.raw"]
        self.assertEqual((same["delta"], same["verdict"]), (0.0, "none"))

    def test_fail_above_gates_on_higher_fields(self):
        a = self.file(csv_run([2.0] * 10, gpu=0.2))
        b = self.file(csv_run([2.5] * 10, gpu=0.4))
        gpu_only = self.file(csv_run([2.0] * 10, gpu=0.4))
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
                got, out, err = self.run_tool(*args)
                self.assertEqual((got, err), (code, err_text))
                self.assertIn("A: 1 run, 10 reports: ", out)

    def test_text_table_and_plot(self):
        a = [self.file(csv_run([p] * 5)) for p in (1, 2, 3)]
        b = [self.file(csv_run([p] * 5, gpu=0.25)) for p in (4, 5, 6)]
        image = Path(self.dir.name, "ab.svg")
        plot = ["--plot", str(image)] if importlib.util.find_spec("matplotlib") else []
        code, out, err = self.run_tool(*a, "--vs", *b, "--fields", "power.raw", *plot)
        self.assertEqual((code, err), (0, ""))
        self.assertTrue(not plot or image.read_bytes().startswith(b"<?xml"))
        lines = out.split("\n")
        self.assertEqual(lines[2], "95% intervals of B - A, several runs a side: Welch's t on "
                                   "the runs' means")
        self.assertEqual(lines[4].split(), ["field", "unit", "A", "mean", "B", "mean", "delta",
                                            "delta", "%", "95%", "low", "95%", "high", "verdict"])
        self.assertEqual(lines[5].split(), ["power.raw", "W", "2.000", "5.000", "+3.000",
                                            "+150.00%", "+0.733", "+5.267", "higher"])
        self.assertEqual(lines[8].split()[:5], ["power.raw", "J", "8.000", "20.000", "+12.000"])

    def test_damaged_and_mismatched_input_is_one_line_and_exit_2(self):
        good = self.file(csv_run([1, 2, 3, 4, 5]))
        cut = self.file(csv_run([1, 2, 3, 4, 5]) + "6,6.000,1795434")
        other = self.file("sequence,timestamp,thermals.fan_rpm\n1,1.0,1200\n")
        empty = self.file("")
        for args, message in (
                ([good, good, "--vs", good], "cannot compare one run with several"),
                ([good, "--vs", other], "the two sides have no numeric field in common"),
                ([good, "--vs", good, "--fields", "thermals.*"],
                 "no numeric field matches 'thermals.*'; both sides have: power.raw"),
                ([good, "--vs", empty], "run4.csv: no complete line: the file is empty"),
                ([good, "--vs", good + ".missing"], "cannot read "),
                ([good], "compare needs files on both sides"),
                ([good, "--vs", good, "--plot", "x.pdf"], "must end in .png or .svg"),
                ([good, "--vs", other, "--fields", "power.raw", "--fail-above", "nan"],
                 "--fail-above takes a percentage")):
            with self.subTest(message=message):
                code, out, err = self.run_tool(*args)
                self.assertEqual((code, out, err.count("\n")), (2, "", 1), err)
                self.assertTrue(err.startswith("emberline-report: error: "), err)
                self.assertIn(message, err)
        code, out, err = self.run_tool(good, "--vs", cut)
        self.assertEqual((code, err.count("ignored the cut-off last line")), (0, 1), err)

    def test_every_profile_and_format(self):
        data = Path(__file__).resolve().parent / "data"
        for profile in ("generic", "fennick", "brantley"):
            with self.subTest(profile=profile):
                csv_file, json_file = (str(data / ("all-%s.%s" % (profile, ext)))
                                       for ext in ("csv", "json"))
                result = self.compare_json(csv_file, "--vs", json_file)
                # Three reports a side are too few for an interval, which is said as "none".
                self.assertGreater(len(result["fields"]), 50)
                self.assertEqual({(f["verdict"], tuple(f["ci95"]))
                                  for f in result["fields"].values()}, {("none", (None, None))})
                twice = self.compare_json(csv_file, csv_file, "--vs", json_file, json_file)
                self.assertEqual(list(twice["energy"]), [name for name in twice["fields"] if
                                                         twice["fields"][name]["unit"] == "W"
                                                         and not name.endswith("_stdev")])


if __name__ == "__main__":
    unittest.main(verbosity=2)
