"""What the companion's tests share: the tool run as its users run it, report files made to
order, and the one-line errors every command ends with on bad input."""

import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
TOOL = str(ROOT / "tools" / "emberline-report")
DATA = Path(__file__).resolve().parent / "data"
sys.path.insert(0, str(ROOT / "tools"))

# Uneven periods (0.5, 2, 0.5, 2 s), nulls, a bare nan, a fraction, a text field, a field with a
# text among its numbers, a map whose keys come and go and an empty section, a report without a
# device_timestamp; the same run in both formats.
CSV = """sequence,timestamp,device_timestamp,power.raw,power.current,power.smooth,power.smooth_stdev,stats.battery_level,thermals.CPU.status,thermals.CPU.cpu0,ravelin.fps,credits.CPU,
1,1.000,1795434001.000,2.000,0.500,1.000,0.100,0.50000,NONE,40.00,72.00,"{""sh"":12}",
2,1.500,1795434001.500,4.000,1.000,1.000,0.300,0.25000,NONE,41.50,busy,"{""sh"":4,""zygote"":3}",
3,3.500,null,null,1.500,1.000,0.200,null,LIGHT,nan,71.50,"null",
4,4.000,1795434004.000,6.000,2.000,1.000,0.400,null,LIGHT,43.00,70.00,"{""sh"":8}",
5,6.000,1795434006.000,2.000,2.500,1.000,0.500,1.00000,NONE,null,69.00,"null",
"""
JSON = """{"sequence":1,"timestamp":1.000,"device_timestamp":1795434001.000,"power":{"raw":2.000,"current":0.500,"smooth":1.000,"smooth_stdev":0.100},"stats":{"battery_level":0.50000},"thermals":{"CPU":{"status":"NONE","cpu0":40.00}},"ravelin":{"fps":72.00},"credits":{"CPU":{"sh":12}},"empty":{}}
{"sequence":2,"timestamp":1.500,"device_timestamp":1795434001.500,"power":{"raw":4.000,"current":1.000,"smooth":1.000,"smooth_stdev":0.300},"stats":{"battery_level":0.25000},"thermals":{"CPU":{"status":"NONE","cpu0":41.50}},"ravelin":{"fps":"busy"},"credits":{"CPU":{"sh":4,"zygote":3}},"empty":{}}
{"sequence":3,"timestamp":3.500,"device_timestamp":null,"power":{"raw":null,"current":1.500,"smooth":1.000,"smooth_stdev":0.200},"stats":{"battery_level":null},"thermals":{"CPU":{"status":"LIGHT","cpu0":nan}},"ravelin":{"fps":71.50},"credits":{"CPU":null},"empty":{}}
{"sequence":4,"timestamp":4.000,"device_timestamp":1795434004.000,"power":{"raw":6.000,"current":2.000,"smooth":1.000,"smooth_stdev":0.400},"stats":{"battery_level":null},"thermals":{"CPU":{"status":"LIGHT","cpu0":43.00}},"ravelin":{"fps":70.00},"credits":{"CPU":{"sh":8}},"empty":{}}
{"sequence":5,"timestamp":6.000,"device_timestamp":1795434006.000,"power":{"raw":2.000,"current":2.500,"smooth":1.000,"smooth_stdev":0.500},"stats":{"battery_level":1.00000},"thermals":{"CPU":{"status":"NONE","cpu0":null}},"ravelin":{"fps":69.00},"credits":{"CPU":null},"empty":{}}
"""


def run_text(raw, gpu=0.5, start=1795434001.0):
    """A CSV run of one report a second, the first at device time `start`: power.raw and
    power.smooth as given (None for a null), and a GPU load fraction."""
    rows = [(i + 1, i + 1.0, start + i) + ("null" if p is None else "%.3f" % p,) * 2 + (gpu,)
            for i, p in enumerate(raw)]
    return ("sequence,timestamp,device_timestamp,power.raw,power.smooth,stats.gpu.util\n" +
            "".join("%d,%.3f,%.3f,%s,%s,%.5f\n" % r for r in rows))


def tool(*args, stdin=None):
    """The tool's exit code, output and errors."""
    r = subprocess.run([TOOL] + [str(a) for a in args], input=stdin, capture_output=True,
                       text=True, timeout=120)
    return r.returncode, r.stdout, r.stderr


class Case(unittest.TestCase):
    """A test with a temporary directory of its own."""

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.dir = Path(directory.name)

    def file(self, name, text):
        (self.dir / name).write_text(text)
        return str(self.dir / name)

    def fails(self, args, message, stdin=None):
        """Runs the tool, which must print nothing and end with exit code 2 and one line that
        holds `message`; returns that line."""
        code, out, err = tool(*args, stdin=stdin)
        self.assertEqual((code, out, err.count("\n")), (2, "", 1), err)
        self.assertTrue(err.startswith("emberline-report: error: "), err)
        self.assertIn(message, err)
        return err


def skip_if(reason):
    """Ends the test as skipped, the exit code ctest is told of, when there is a reason."""
    if reason:
        print("skipped: " + reason)
        sys.exit(77)
