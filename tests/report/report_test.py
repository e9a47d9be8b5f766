"""tools/emberline-report summary and plot on a crafted run whose answers are worked out by hand."""

import importlib.util
import json
import unittest

from common import CSV, JSON, Case, tool

# field: unit, count, nulls, mean, min, median, p95, max, energy in J (None: not a power field).
# ravelin.fps, with a text among its numbers, is not a numeric field.
EXPECTED = {
    "power.raw": ("W", 4, 1, 3.5, 2.0, 3.0, 5.7, 6.0, 0.5 * 3 + 2.5 * 5 + 2.0 * 4),
    "power.current": ("A", 5, 0, 1.5, 0.5, 1.5, 2.4, 2.5, None),
    "power.smooth": ("W", 5, 0, 1.0, 1.0, 1.0, 1.0, 1.0, 5.0),
    "power.smooth_stdev": ("W", 5, 0, 0.3, 0.1, 0.3, 0.48, 0.5, None),
    "stats.battery_level": ("%", 3, 2, 175 / 3, 25.0, 50.0, 95.0, 100.0, None),
    "thermals.CPU.cpu0": ("C", 3, 2, 41.5, 40.0, 41.5, 42.85, 43.0, None),
    "credits.CPU.sh": (None, 3, 0, 8.0, 4.0, 8.0, 11.6, 12.0, None),
    "credits.CPU.zygote": (None, 1, 0, 3.0, 3.0, 3.0, 3.0, 3.0, None),
}
KEYS = ("mean", "min", "median", "p95", "max", "energy_j", "energy_wh")


class ReportTest(Case):
    def test_both_formats_give_the_known_answers_also_when_cut_off(self):
        # The CSV tail has every cell, so only the missing line end tells that it is cut off.
        cut = {"csv": '6,7.000,1795434007.000,9.000,3.000,1.000,0.500,1.00000,NONE,44.00,1,"null",',
               "json": '{"sequence":6,"timestamp":7.000,"power":{"raw":9'}
        for kind, text in (("csv", CSV), ("json", JSON)):
            for tail in ("", cut[kind]):
                with self.subTest(kind=kind, cut_off=bool(tail)):
                    # A whole file is read from its name, a cut-off one from standard input.
                    source = "-" if tail else self.file("run." + kind, text)
                    code, out, err = tool("summary", "--json", source, stdin=text + tail)
                    self.assertEqual((code, err.count("cut-off")), (0, int(bool(tail))), err)
                    s = json.loads(out)
                    self.assertEqual((s["format"], s["reports"], s["start_s"], s["end_s"]),
                                     (kind, 5, 1.0, 6.0))
                    self.assertEqual(list(s["fields"]), list(EXPECTED))
                    for name, (unit, count, nulls, *stats, joules) in EXPECTED.items():
                        f = s["fields"][name]
                        self.assertEqual((f["unit"], f["count"], f["nulls"], "energy_j" in f),
                                         (unit, count, nulls, joules is not None), name)
                        want = stats + ([joules, joules / 3600] if joules is not None else [])
                        for key, value in zip(KEYS, want):
                            self.assertAlmostEqual(f[key], value, places=9, msg=name + " " + key)

    def test_bad_input_is_one_line_and_exit_2(self):
        empty = self.file("empty.csv", "\n\n")
        for args, text, message in (
                (["summary", empty], None, empty + ": no complete line: the file is empty"),
                (["summary", "-"], '{"sequence":1,"tim', "only a cut-off line"),
                (["summary", "-"], CSV.split("\n")[0] + "\n", "a CSV header but no reports"),
                (["summary", "-"], '{"a":1}\n', "no line holds a report with a timestamp"),
                (["summary", "-"], "sequence: 1 | timestamp: 1.000\n", "line 1 is neither"),
                (["plot", "-", "-o", "x.png", "--fields", "power.raw,power.volt*"], CSV,
                 "no numeric field matches 'power.volt*'")):
            with self.subTest(message=message):
                self.fails(args, message, stdin=text)

    @unittest.skipUnless(importlib.util.find_spec("matplotlib"), "matplotlib is missing")
    def test_plot_writes_its_image_or_says_why_not(self):
        # PNG here; compare's plot writes SVG.
        out = self.dir / "p.png"
        self.assertEqual(tool("plot", "-", "-o", out, "--fields", "power.*", stdin=CSV)[0], 0)
        self.assertTrue(out.read_bytes().startswith(b"\x89PNG"))
        self.fails(["plot", "-", "-o", "/nonexistent/x.png"], "cannot write /nonexistent/x.png: "
                   "No such file", stdin=CSV)


if __name__ == "__main__":
    unittest.main(verbosity=2)
