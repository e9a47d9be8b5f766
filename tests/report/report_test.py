"""tools/emberline-report on crafted report files whose answers are worked out by hand."""

import json
import subprocess
import tempfile
import unittest
from pathlib import Path

TOOL = str(Path(__file__).resolve().parents[2] / "tools" / "emberline-report")

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


def run(*args, text):
    """The tool's exit code, output and errors; IN names a file holding `text`, - reads it."""
    with tempfile.NamedTemporaryFile("w") as f:
        f.write(text)
        f.flush()
        r = subprocess.run([TOOL] + [f.name if a == "IN" else a for a in args], input=text,
                           capture_output=True, text=True, timeout=120)
    return r.returncode, r.stdout, r.stderr


class ReportTest(unittest.TestCase):
    def test_both_formats_give_the_known_answers_also_when_cut_off(self):
        # The CSV tail has every cell, so only the missing line end tells that it is cut off.
        cut = {"csv": '6,7.000,1795434007.000,9.000,3.000,1.000,0.500,1.00000,NONE,44.00,"null",',
               "json": '{"sequence":6,"timestamp":7.000,"power":{"raw":9'}
        for kind, text in (("csv", CSV), ("json", JSON)):
            for tail, source in (("", "IN"), (cut[kind], "-")):
                with self.subTest(kind=kind, cut_off=bool(tail)):
                    code, out, err = run("summary", "--json", source, text=text + tail)
                    self.assertEqual((code, err.count("cut-off")), (0, int(bool(tail))), err)
                    s = json.loads(out)
                    self.assertEqual((s["format"], s["reports"], s["start_s"], s["end_s"]), (kind, 5, 1.0, 6.0))
                    self.assertEqual(list(s["fields"]), list(EXPECTED))
                    for name, (unit, count, nulls, *stats, joules) in EXPECTED.items():
                        f = s["fields"][name]
                        self.assertEqual((f["unit"], f["count"], f["nulls"], "energy_j" in f),
                                         (unit, count, nulls, joules is not None), name)
                        want = stats + ([joules, joules / 3600] if joules is not None else [])
                        keys = ("mean", "min", "median", "p95", "max", "energy_j", "energy_wh")
                        for key, value in zip(keys, want):
                            self.assertAlmostEqual(f[key], value, places=9, msg=name + " " + key)

    def test_bad_input_is_one_line_and_exit_2(self):
        for args, text, message in (("summary IN", "\n\n", "no complete line: the file is empty"),
                                    ("summary -", '{"sequence":1,"tim', "only a cut-off line"),
                                    ("summary -", CSV.split("\n")[0] + "\n", "a CSV header but no reports"),
                                    ("summary -", '{"a":1}\n', "no line holds a report with a timestamp"),
                                    ("summary -", "sequence: 1 | timestamp: 1.000\n", "line 1 is neither"),
                                    ("plot - -o x.png --fields power.raw,power.volt*", CSV,
                                     "no numeric field matches 'power.volt*'"),
                                    ("plot - -o /nonexistent/x.png", CSV,
                                     "cannot write /nonexistent/x.png: No such file")):
            with self.subTest(message=message):
                code, out, err = run(*args.split(), text=text)
                self.assertEqual((code, out, err.count("\n")), (2, "", 1), err)
                self.assertIn(message, err)

    def test_plot_writes_the_image_its_name_asks_for(self):
        try:
            import matplotlib  # noqa: F401
        except ImportError:
            self.skipTest("matplotlib is missing")
        with tempfile.TemporaryDirectory() as d:
            for name, magic in (("p.png", b"\x89PNG"), ("p.svg", b"<?xml")):
                code, _, err = run("plot", "IN", "-o", f"{d}/{name}", "--fields", "power.*", text=CSV)
                self.assertEqual(code, 0, err)
                self.assertTrue(Path(d, name).read_bytes().startswith(magic), name)


if __name__ == "__main__":
    unittest.main(verbosity=2)
