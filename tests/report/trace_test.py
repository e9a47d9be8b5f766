"""tools/emberline-report trace: decoded with protoc against upstream Perfetto's schema, every
value of the report file stands on its field's track at its report's time, and nothing else."""

import csv
import json
import math
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
TIME_FIELDS = ("sequence", "timestamp", "device_timestamp")

# Map keys that come and go, a null, a bare nan, text in a numeric field, a fraction, a report
# whose device_timestamp is null, and a cut-off last line.
CRAFTED = """sequence,timestamp,device_timestamp,power.raw,stats.gpu.util,ravelin.fps,credits.CPU
1,1.000,1795434001.000,2.000,0.50000,72.00,"{""sh"":12,""zygote"":1}"
2,2.000,1795434002.000,null,0.25000,busy,"{""sh"":4}"
3,3.000,null,5.000,0.75000,71.50,"null"
4,4.250,1795434004.250,nan,0.12500,70.00,"{""zygote"":3}"
5,5.000,1795434005.00"""


def unescape(quoted):
    """A string as protoc's text format prints it: C escapes, octal for other bytes."""
    out = bytearray()
    body = quoted[1:-1]
    i = 0
    while i < len(body):
        c = body[i]
        if c != "\\":
            out += c.encode("utf-8")
            i += 1
            continue
        nxt = body[i + 1]
        if nxt in "01234567":
            digits = re.match(r"[0-7]{1,3}", body[i + 1:]).group()
            out.append(int(digits, 8))
            i += 1 + len(digits)
        else:
            out += {"n": b"\n", "r": b"\r", "t": b"\t"}.get(nxt, nxt.encode())
            i += 2
    return out.decode("utf-8")


def parse_text_format(text):
    """protoc's decoded text as nested dicts of lists."""
    root = {}
    stack = [root]
    for line in text.splitlines():
        line = line.strip()
        if line.endswith("{"):
            child = {}
            stack[-1].setdefault(line[:-1].strip(), []).append(child)
            stack.append(child)
        elif line == "}":
            stack.pop()
        elif line:
            key, value = line.split(": ", 1)
            stack[-1].setdefault(key, []).append(unescape(value) if value.startswith('"')
                                                 else value)
    return root


def flatten(prefix, node, out):
    for key, value in node.items():
        if isinstance(value, dict):
            flatten(prefix + key + ".", value, out)
        else:
            out[prefix + key] = value


def number(value):
    """A reading as the trace must carry it, or None for a gap."""
    if isinstance(value, bool) or value is None:
        return None
    try:
        value = float(value)
    except (TypeError, ValueError):
        return None
    return value if math.isfinite(value) else None


def expected_events(path):
    """(field, nanoseconds, value) of every number in the file, read without the tool's code."""
    lines = Path(path).read_text().split("\n")[:-1]
    reports = []
    if path.suffix == ".csv":
        for row in csv.DictReader(lines):
            flat = {}
            for name, cell in row.items():
                if cell.startswith("{"):
                    flatten(name + ".", json.loads(cell), flat)
                else:
                    flat[name] = cell
            reports.append(flat)
    else:
        for line in lines:
            flat = {}
            flatten("", json.loads(re.sub(r"(?<=[:,\[])-?(nan|inf)(?=[,}\]])", "null", line)),
                    flat)
            reports.append(flat)
    events = []
    for flat in reports:
        stamp = number(flat.get("device_timestamp"))
        if stamp is None:
            continue
        for name, value in flat.items():
            if name not in TIME_FIELDS and number(value) is not None:
                events.append((name, round(stamp * 1e6) * 1000, number(value)))
    return sorted(events)


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

    def tearDown(self):
        self.dir.cleanup()

    def decode(self, report):
        out = Path(self.dir.name, report.name + ".perfetto-trace")
        r = subprocess.run([TOOL, "trace", str(report), "-o", str(out)], capture_output=True,
                           text=True, timeout=120)
        self.assertEqual(r.returncode, 0, r.stderr)
        with open(out, "rb") as trace:
            d = subprocess.run(["protoc", "--proto_path=%s" % PROTO_DIR,
                                "--decode=perfetto.protos.Trace", "perfetto_trace.proto"],
                               stdin=trace, capture_output=True, text=True, timeout=120)
        self.assertEqual(d.returncode, 0, d.stderr)
        unknown = re.findall(r"^\s*\d+\s*[:{].*$", d.stdout, re.M)
        self.assertEqual(unknown, [], "fields upstream does not define")
        return parse_text_format(d.stdout)["packet"], r.stderr

    def check(self, report):
        """Checks the trace of `report` and returns its events as (field, time, value)."""
        packets, err = self.decode(report)
        self.assertEqual({p["trusted_packet_sequence_id"][0] for p in packets}, {"1"})
        first = packets[0]
        self.assertEqual((first["sequence_flags"], first["clock_snapshot"][0]
                          ["primary_trace_clock"]), (["1"], ["BUILTIN_CLOCK_REALTIME"]))
        tracks = {}
        parent = None
        events = []
        for p in packets[1:]:
            if "track_descriptor" in p:
                d = p["track_descriptor"][0]
                if "counter" in d:
                    self.assertEqual(d["parent_uuid"], [parent])
                    self.assertNotIn(d["name"][0], tracks.values())
                    tracks[d["uuid"][0]] = d["name"][0]
                else:
                    self.assertIsNone(parent, "one track for the report")
                    self.assertEqual(d["name"], [report.name])
                    parent = d["uuid"][0]
            else:
                e = p["track_event"][0]
                self.assertEqual((e["type"], p["timestamp_clock_id"]), (["TYPE_COUNTER"], ["1"]))
                # A descriptor comes before its track's first event.
                events.append((tracks[e["track_uuid"][0]], int(p["timestamp"][0]),
                               float(e["double_counter_value"][0])))
        self.assertEqual(sorted(events), expected_events(report))
        self.assertEqual(events, sorted(events, key=lambda e: e[1]), "events in time order")
        return events, err

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
