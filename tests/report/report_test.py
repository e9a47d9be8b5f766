"""tools/emberline-report on crafted report files whose answers are worked out by hand."""

import contextlib
import importlib.machinery
import io
import json
import os
import subprocess
import sys
import tempfile
import types
import unittest
from pathlib import Path

TOOL = str(Path(__file__).resolve().parents[2] / "tools" / "emberline-report")
er = types.ModuleType("emberline_report")
importlib.machinery.SourceFileLoader(er.__name__, TOOL).exec_module(er)
try:
    import matplotlib.image
except ImportError:
    matplotlib = None

# Uneven periods (0.5, 2, 0.5, 2 s), nulls, a bare nan, a fraction, a text field, a map whose keys
# come and go and an empty section, the same run in both formats.
CSV = """sequence,timestamp,device_timestamp,power.raw,power.current,power.smooth,power.smooth_stdev,stats.battery_level,thermals.CPU.status,thermals.CPU.cpu0,credits.CPU,
1,1.000,1795434001.000,2.000,0.500,1.000,0.100,0.50000,NONE,40.00,"{""sh"":12}",
2,1.500,1795434001.500,4.000,1.000,1.000,0.300,0.25000,NONE,41.50,"{""sh"":4,""zygote"":3}",
3,3.500,1795434003.500,null,1.500,1.000,0.200,null,LIGHT,nan,"null",
4,4.000,1795434004.000,6.000,2.000,1.000,0.400,null,LIGHT,43.00,"{""sh"":8}",
5,6.000,1795434006.000,2.000,2.500,1.000,0.500,1.00000,NONE,null,"null",
"""
JSON = """{"sequence":1,"timestamp":1.000,"device_timestamp":1795434001.000,"power":{"raw":2.000,"current":0.500,"smooth":1.000,"smooth_stdev":0.100},"stats":{"battery_level":0.50000},"thermals":{"CPU":{"status":"NONE","cpu0":40.00}},"credits":{"CPU":{"sh":12}},"empty":{}}
{"sequence":2,"timestamp":1.500,"device_timestamp":1795434001.500,"power":{"raw":4.000,"current":1.000,"smooth":1.000,"smooth_stdev":0.300},"stats":{"battery_level":0.25000},"thermals":{"CPU":{"status":"NONE","cpu0":41.50}},"credits":{"CPU":{"sh":4,"zygote":3}},"empty":{}}
{"sequence":3,"timestamp":3.500,"device_timestamp":1795434003.500,"power":{"raw":null,"current":1.500,"smooth":1.000,"smooth_stdev":0.200},"stats":{"battery_level":null},"thermals":{"CPU":{"status":"LIGHT","cpu0":nan}},"credits":{"CPU":null},"empty":{}}
{"sequence":4,"timestamp":4.000,"device_timestamp":1795434004.000,"power":{"raw":6.000,"current":2.000,"smooth":1.000,"smooth_stdev":0.400},"stats":{"battery_level":null},"thermals":{"CPU":{"status":"LIGHT","cpu0":43.00}},"credits":{"CPU":{"sh":8}},"empty":{}}
{"sequence":5,"timestamp":6.000,"device_timestamp":1795434006.000,"power":{"raw":2.000,"current":2.500,"smooth":1.000,"smooth_stdev":0.500},"stats":{"battery_level":1.00000},"thermals":{"CPU":{"status":"NONE","cpu0":null}},"credits":{"CPU":null},"empty":{}}
"""

# field: unit, count, nulls, mean, min, median, p95, max, energy in J (None: not a power field)
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


class ReportTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp()

    def run_tool(self, *args, text=None):
        if text is not None:
            with open(os.path.join(self.dir, "in"), "w") as f:
                f.write(text)
        out, err = io.StringIO(), io.StringIO()
        with contextlib.redirect_stderr(err), contextlib.redirect_stdout(out):
            code = er.main([a.replace("IN", os.path.join(self.dir, "in")) for a in args])
        return code, out.getvalue(), err.getvalue()

    def check_summary(self, summary):
        self.assertEqual(list(summary["fields"]), list(EXPECTED))
        self.assertEqual((summary["reports"], summary["start_s"], summary["end_s"]), (5, 1.0, 6.0))
        for name, (unit, count, nulls, *stats, joules) in EXPECTED.items():
            f = summary["fields"][name]
            self.assertEqual((f["unit"], f["count"], f["nulls"], "energy_j" in f), (unit, count, nulls, joules is not None))
            for key, want in zip(("mean", "min", "median", "p95", "max"), stats):
                self.assertAlmostEqual(f[key], want, places=9, msg=name + " " + key)
            if joules is not None:
                self.assertAlmostEqual(f["energy_j"], joules, places=9, msg=name)
                self.assertAlmostEqual(f["energy_wh"], joules / 3600, places=12, msg=name)

    def test_both_formats_give_the_known_answers_also_when_cut_off(self):
        # The CSV tail has every cell, so only the missing line end tells that it is cut off.
        cut = {"csv": '6,7.000,1795434007.000,9.000,3.000,1.000,0.500,1.00000,NONE,44.00,"null",',
               "json": '{"sequence":6,"timestamp":7.000,"power":{"raw":9'}
        for kind, text in (("csv", CSV), ("json", JSON)):
            for tail in ("", cut[kind]):
                with self.subTest(kind=kind, cut_off=bool(tail)):
                    code, out, err = self.run_tool("summary", "--json", "IN", text=text + tail)
                    self.assertEqual(code, 0, err)
                    self.check_summary(json.loads(out))
                    self.assertEqual((json.loads(out)["format"], err.count("cut-off")), (kind, int(bool(tail))))

    def test_text_summary(self):
        code, out, _ = self.run_tool("summary", "IN", text=CSV)
        title, stats, energy = out.rstrip("\n").split("\n\n")
        self.assertTrue(title.endswith("in: 5 reports over 5.000 s (timestamp 1.000 to 6.000)"), title)
        rows = [line.split() for line in stats.splitlines()]
        self.assertEqual(rows[:2], [["field", "unit", "count", "nulls", "mean", "min", "median", "p95", "max"],
                                    ["power.raw", "W", "4", "1", "3.500", "2.000", "3.000", "5.700", "6.000"]])
        self.assertEqual(rows[-1], ["credits.CPU.zygote", "1", "0"] + ["3.000"] * 5)
        self.assertEqual([line.split() for line in energy.splitlines()],
                         [["energy", "J", "Wh"], ["power.raw", "22.000", "0.006111"], ["power.smooth", "5.000", "0.001389"]])

    def test_standard_input_through_the_executable(self):
        result = subprocess.run([TOOL, "summary", "--json", "-"], input=JSON, capture_output=True, text=True, timeout=120)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.check_summary(json.loads(result.stdout))

    def test_bad_input_is_one_line_and_exit_2(self):
        cases = [("", "the file is empty"), ("\n\n", "the file is empty"), ('{"sequence":1,"tim', "only a cut-off line"),
                 (CSV.split("\n")[0] + "\n", "a CSV header but no reports"), ('{"a":1}\n', "not an emberline report"),
                 ("sequence: 1 | timestamp: 1.000\n------\n", "not an emberline report"),
                 (CSV, "no numeric field matches 'power.volt*'"), (CSV, "no numeric field matches 'thermals.CPU.status'")]
        for text, message in cases:
            with self.subTest(message=message, text=text[:20]):
                pattern = message.split("'")[1:2]
                args = ["plot", "IN", "-o", "x.png", "--fields", "power.raw," + pattern[0]] if pattern else ["summary", "IN"]
                code, out, err = self.run_tool(*args, text=text)
                self.assertEqual((code, out, err.count("\n")), (2, "", 1), err)
                self.assertIn(message, err)

    def test_units_by_name(self):
        for unit, names in {"W": ["power_usb.raw", "power_rails.gold", "quillon_rails.cx_rail_2", "charge.Bat Power Now"],
                            "A": ["power_usb.current", "charge.USB input_current_limit"], "V": ["charge.Bat Voltage Now"],
                            "GHz": ["stats.cpu4-7.freq", "stats.gpu.freq"], "MHz": ["dsp.dsp_freq", "quillon_dram.ddr_freq_mhz"],
                            "%": ["stats.gpu.util", "stats.cpu_cycl.cpu_cycl3", "stats.cpu_time0-3.max_util",
                                  "charge.Bat Capacity", "dsp.dsp_util_max_prct"],
                            "C": ["thermals.SKIN.skin-therm", "charge.Bat Temp"], "rpm": ["thermals.fan_rpm"],
                            "s": ["charge.Bat Time To Full"], "MB/s": ["quillon_dram.cpu_bw_mbps"],
                            "ms": ["wait_time_ms", "timing.power"], None: ["example.num_samples", "charge.Bat Cycle Count"]}.items():
            self.assertEqual({n: er.unit_of(n) for n in names}, {n: unit for n in names})
        self.assertEqual([n for n in ("power.raw", "power.smooth_stdev", "charge.Bat Power Avg") if er.is_integrated(n)],
                         ["power.raw", "charge.Bat Power Avg"])

    @unittest.skipIf(matplotlib is None, "python3-matplotlib is not installed")
    def test_plot_is_an_image_of_one_panel_per_unit(self):
        for fields, panels, out in ((None, 1, "p.png"), ("power.*,stats.*", 3, "p.png"), ("*", 5, "p.png"), (None, 1, "p.svg")):
            with self.subTest(fields=fields, out=out):
                out = os.path.join(self.dir, out)
                code, _, err = self.run_tool("plot", "IN", "-o", out, *(["--fields", fields] if fields else []), text=JSON)
                self.assertEqual(code, 0, err)
                if out.endswith(".svg"):
                    with open(out) as f:
                        self.assertIn("<svg", f.read(400))
                    continue
                image = matplotlib.image.imread(out)
                height = round((er.MARGIN_HEIGHT_IN + er.PANEL_HEIGHT_IN * panels) * er.DPI)
                self.assertEqual(image.shape[:2], (height, round(er.FIGURE_WIDTH_IN * er.DPI)))
                self.assertGreater(float(image[..., :3].std()), 0.05)


if __name__ == "__main__":
    if not unittest.main(exit=False, verbosity=2).result.wasSuccessful():
        sys.exit(1)
    if matplotlib is None:
        print("SKIPPED: python3-matplotlib is not installed (scripts/setup.sh installs it)")
        sys.exit(77)
