"""tools/emberline-report trace: decoded with protoc against upstream Perfetto's schema, every
value of the report file stands on its field's track at its report's time, and nothing else."""

import codecs
import re
import shutil
import subprocess
import unittest

from common import CSV, DATA, ROOT, Case, skip_if, tool
from emberline_report.reading import TIME_FIELDS, load_report

PROTO_DIR = ROOT.parent / "shared" / "perfetto"


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
    """(field, nanoseconds, value) of every number of the file at a report's device_timestamp,
    as the file has it: fractions stay fractions."""
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


class TraceTest(Case):
    def check(self, report):
        """Decodes the trace of `report`, checks its structure and values, and returns its
        events as (field, time, value) and the tool's standard error."""
        out = self.dir / (report.name + ".perfetto-trace")
        code, _, err = tool("trace", report, "-o", out)
        self.assertEqual(code, 0, err)
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
        return events, err

    def test_every_profile_and_format(self):
        for report in sorted(DATA.glob("all-*")):
            with self.subTest(report=report.name):
                events, err = self.check(report)
                self.assertEqual(err, "")
                self.assertGreater(len({name for name, _, _ in events}), 50)

    def test_gaps_map_keys_and_damage(self):
        # Texts and nulls leave gaps, map keys come and go, a report has no device_timestamp, and
        # the last line is cut off.
        report = self.dir / "crafted.csv"
        report.write_text(CSV + "6,7.000,1795434007.0")
        events, err = self.check(report)
        self.assertEqual(err, "emberline-report: %s: ignored the cut-off last line\n"
                              "emberline-report: %s: left out 1 report without a "
                              "device_timestamp\n" % (report, report))
        # Four reports placed: four values of each power field, three of the battery, cpu0, fps
        # and sh, one of zygote.
        self.assertEqual(len(events), 4 * 4 + 3 * 4 + 1)

    def test_bad_input_is_one_line_and_exit_2(self):
        no_stamp = self.file("no-stamp.csv", "sequence,timestamp,power.raw\n1,1.0,2.0\n")
        for report, out, message in (
                (no_stamp, "x.perfetto-trace", "no-stamp.csv: no report has a device_timestamp"),
                (DATA / "all-generic.csv", "no/x.perfetto-trace", "cannot write ")):
            with self.subTest(message=message):
                self.fails(["trace", report, "-o", self.dir / out], message)
        self.assertEqual(list(self.dir.glob("*trace*")), [], "no half trace")


if __name__ == "__main__":
    skip_if(missing())
    unittest.main(verbosity=2)
