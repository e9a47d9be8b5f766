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


def packets(text):
    """protoc's decoded text as one dict a packet: every field of the packet by name, at any
    depth (a message as ""), strings unquoted."""
    return [{key: codecs.escape_decode(v[1:-1])[0].decode() if v.startswith('"') else v
             for key, v in re.findall(r"^\s*(\w+)(?:: (.*)| \{)$", block, re.M)}
            for block in re.split(r"^packet \{$", text, flags=re.M)[1:]]


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
        first, *rest = packets(d.stdout)
        self.assertEqual({p["trusted_packet_sequence_id"] for p in [first] + rest}, {"1"})
        self.assertEqual((first["sequence_flags"], first["primary_trace_clock"]),
                         ("1", "BUILTIN_CLOCK_REALTIME"))
        tracks, parent, events = {}, None, []
        for p in rest:
            if "counter" in p:
                self.assertEqual(p["parent_uuid"], parent)
                self.assertNotIn(p["name"], tracks.values())
                tracks[p["uuid"]] = p["name"]
            elif "track_descriptor" in p:
                self.assertEqual((parent, p["name"]), (None, report.name), "one report track")
                parent = p["uuid"]
            else:
                self.assertEqual((p["type"], p["timestamp_clock_id"]), ("TYPE_COUNTER", "1"))
                # A descriptor comes before its track's first event.
                events.append((tracks[p["track_uuid"]], int(p["timestamp"]),
                               float(p["double_counter_value"])))
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
