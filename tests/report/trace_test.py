"""tools/emberline-report trace: decoded with protoc against upstream Perfetto's schema, every
value of the report file stands on its field's track at its report's time, and nothing else."""

import codecs
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
TOOL = str(ROOT / "tools" / "emberline-report")
DATA = Path(__file__).resolve().parent / "data"
PROTO_DIR = ROOT.parent / "shared" / "perfetto"
sys.path.insert(0, str(ROOT / "tools"))
from emberline_report.reading import TIME_FIELDS, load_report  # noqa: E402

# Map keys that come and go, a null, a bare nan, text in a numeric field, a fraction, a report
# whose device_timestamp is null, and a cut-off last line.
CRAFTED = """sequence,timestamp,device_timestamp,power.raw,stats.gpu.util,ravelin.fps,credits.CPU
1,1.000,1795434001.000,2.000,0.50000,72.00,"{""sh"":12,""zygote"":1}"
2,2.000,1795434002.000,null,0.25000,busy,"{""sh"":4}"
3,3.000,null,5.000,0.75000,71.50,"null"
4,4.250,1795434004.250,nan,0.12500,70.00,"{""zygote"":3}"
5,5.000,1795434005.00"""


def parse_text_format(text):
    """protoc's decoded text as nested dicts of lists; strings are C-escaped bytes."""
    root = {}
    stack = [root]
    for line in text.splitlines():
        line = line.strip()
        if line.endswith("{"):
            stack[-1].setdefault(line[:-1].strip(), []).append({})
            stack.append(stack[-1][line[:-1].strip()][-1])
        elif line == "}":
            stack.pop()
        elif line:
            key, value = line.split(": ", 1)
            if value.startswith('"'):
                value = codecs.escape_decode(value[1:-1])[0].decode("utf-8")
            stack[-1].setdefault(key, []).append(value)
    return root


def expected_events(path):
    """(field, nanoseconds, value) of every number of the file at a report's device_timestamp."""
    report = load_report(str(path))
    stamps = dict(zip(*report.columns["device_timestamp"]))
    return sorted((name, round(stamps[i] * 1e6) * 1000, value)
                  for name, (indexes, readings) in report.columns.items()
                  if name not in TIME_FIELDS
                  for i, value in zip(indexes, readings)
                  if type(value) is float and stamps.get(i) is not None)


def missing():
    """Why the trace cannot be decoded here, or None."""
    if shutil.which("protoc") is None:
        return "protoc is missing (Debian's protobuf-compiler, which scripts/setup.sh installs)"
    if not (PROTO_DIR / "perfetto_trace.proto").exists():
        return "upstream Perfetto's schema is missing: %s" % PROTO_DIR
    return None


class TraceTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.addCleanup(self.dir.cleanup)

    def check(self, report):
        """Decodes the trace of `report`, checks its structure and values, and returns its
        events as (field, time, value) and the tool's standard error."""
        out = Path(self.dir.name, report.name + ".perfetto-trace")
        r = subprocess.run([TOOL, "trace", str(report), "-o", str(out)], capture_output=True,
                           text=True, timeout=120)
        self.assertEqual(r.returncode, 0, r.stderr)
        with open(out, "rb") as trace:
            d = subprocess.run(["protoc", "--proto_path=%s" % PROTO_DIR,
                                "--decode=perfetto.protos.Trace", "perfetto_trace.proto"],
                               stdin=trace, capture_output=True, text=True, timeout=120)
        self.assertEqual(d.returncode, 0, d.stderr)
        self.assertEqual(re.findall(r"^\s*\d+\s*[:{].*$", d.stdout, re.M), [],
                         "fields upstream does not define")
        packets = parse_text_format(d.stdout)["packet"]
        self.assertEqual({p["trusted_packet_sequence_id"][0] for p in packets}, {"1"})
        self.assertEqual((packets[0]["sequence_flags"], packets[0]["clock_snapshot"][0]
                          ["primary_trace_clock"]), (["1"], ["BUILTIN_CLOCK_REALTIME"]))
        tracks, parent, events = {}, None, []
        for p in packets[1:]:
            if "track_descriptor" in p:
                d = p["track_descriptor"][0]
                if "counter" in d:
                    self.assertEqual(d["parent_uuid"], [parent])
                    self.assertNotIn(d["name"][0], tracks.values())
                    tracks[d["uuid"][0]] = d["name"][0]
                else:
                    self.assertEqual((parent, d["name"]), (None, [report.name]),
                                     "one track for the report")
                    parent = d["uuid"][0]
            else:
                e = p["track_event"][0]
                self.assertEqual((e["type"], p["timestamp_clock_id"]), (["TYPE_COUNTER"], ["1"]))
                # A descriptor comes before its track's first event.
                events.append((tracks[e["track_uuid"][0]], int(p["timestamp"][0]),
                               float(e["double_counter_value"][0])))
        self.assertEqual(sorted(events), expected_events(report))
        self.assertEqual(events, sorted(events, key=lambda e: e[1]), "events in time order")
        return events, r.stderr

    def test_every_profile_and_format(self):
        for report in sorted(DATA.glob("all-*")):
            with self.subTest(report=report.name):
                events, err = self.check(report)
                self.assertEqual(err, "")
                self.assertGreater(len({name for name, _, _ in events}), 50)

    def test_gaps_map_keys_and_damage(self):
        report = Path(self.dir.name, "crafted.csv")
        report.write_text(CRAFTED)
        events, err = self.check(report)
        self.assertEqual(err, "emberline-report: %s: ignored the cut-off last line\n"
                              "emberline-report: %s: left out 1 report without a "
                              "device_timestamp\n" % (report, report))
        self.assertEqual([(n, v) for n, _, v in events if n.startswith("credits")],
                         [("credits.CPU.sh", 12.0), ("credits.CPU.zygote", 1.0),
                          ("credits.CPU.sh", 4.0), ("credits.CPU.zygote", 3.0)])
        self.assertEqual([v for n, _, v in events if n == "ravelin.fps"], [72.0, 70.0])
        # Fractions stay fractions, as the file has them.
        self.assertIn(("stats.gpu.util", 1795434004250000000, 0.125), events)

    def test_bad_input_is_one_line_and_exit_2(self):
        report = Path(self.dir.name, "no-stamp.csv")
        report.write_text("sequence,timestamp,power.raw\n1,1.0,2.0\n")
        for args, message in (([str(report), "-o", "x.perfetto-trace"],
                               "no-stamp.csv: no report has a device_timestamp"),
                              ([str(DATA / "all-generic.csv"), "-o",
                                str(Path(self.dir.name, "missing", "x.perfetto-trace"))],
                               "cannot write ")):
            with self.subTest(message=message):
                r = subprocess.run([TOOL, "trace"] + args, capture_output=True, text=True,
                                   timeout=120, cwd=self.dir.name)
                self.assertEqual((r.returncode, r.stdout, r.stderr.count("\n")), (2, "", 1),
                                 r.stderr)
                self.assertIn(message, r.stderr)
        self.assertEqual(list(Path(self.dir.name).glob("*trace*")), [], "no half trace")


if __name__ == "__main__":
    reason = missing()
    if reason:
        print("skipped: " + reason)
        sys.exit(77)
    unittest.main(verbosity=2)
