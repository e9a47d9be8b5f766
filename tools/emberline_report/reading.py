"""Report files as the tool writes them: CSV with a header line, or one JSON object a line.

Damage is expected (a run killed mid-write, a line of noise): such lines are left out and
counted, and only a file with no report at all is an error."""

import csv
import json
import math
import re
import sys

from . import PROG

# The engine's own fields place a report in time; they are not readings of the device.
TIME_FIELDS = ("sequence", "timestamp", "device_timestamp")

# The tool prints a float that is not a number as bare nan or inf, even in JSON.
BARE_NONFINITE = re.compile(r"(?<=[:,\[])\s*-?(?:nan|inf)\s*(?=[,}\]])")


class ReportError(Exception):
    """Input that is not usable; its text is the one line the user sees."""


def unbare_nonfinite(text):
    """JSON text with the tool's bare nan and inf turned into null, so a JSON parser takes it."""
    # Most lines hold neither word, and the test is far cheaper than the substitution.
    if "nan" not in text and "inf" not in text:
        return text
    return BARE_NONFINITE.sub("null", text)


def read_bytes(path):
    """A report file's content, or - for standard input."""
    try:
        if path == "-":
            return sys.stdin.buffer.read()
        with open(path, "rb") as f:
            return f.read()
    except OSError as e:
        raise ReportError("cannot read %s: %s" % (path, e.strerror))


def decode(content):
    """Bytes that are not UTF-8 become U+FFFD rather than an error."""
    return content.decode("utf-8", "replace")


def read_text(path):
    """A report file's text."""
    return decode(read_bytes(path))


def number_or_text(text):
    """A cell's reading: a float, None for null (and nan/inf), or the text itself."""
    if text == "null":
        return None
    try:
        number = float(text)
    except ValueError:
        return text
    return number if math.isfinite(number) else None


class Report:
    """The readings of one run, by field, in report order. A field missing from a report (a map
    key that came and went) has no entry for that report."""

    def __init__(self, kind):
        self.kind = kind
        # name: (indexes of the reports that have the field, their readings)
        self.columns = {}
        self.times = []
        self.skipped = []
        self.cut_off = False

    def add(self, flat, line_number):
        if not isinstance(flat.get("timestamp"), float):
            self.skipped.append(line_number)
            return
        index = len(self.times)
        self.times.append(flat["timestamp"])
        columns = self.columns
        for name, reading in flat.items():
            column = columns.get(name)
            if column is None:
                if not name:
                    continue
                column = columns[name] = ([], [])
            column[0].append(index)
            column[1].append(reading)

    def readings(self, name):
        return self.columns[name][1]

    def numeric_fields(self):
        """Fields whose readings are all numbers or null, in report order."""
        names = list(self.columns)
        # An empty map prints as null where its entries would stand; it is not a field itself.
        parents = {name[:i] for name in names for i, c in enumerate(name) if c == "."}
        numeric = []
        for name in names:
            if name in TIME_FIELDS:
                continue
            readings = self.columns[name][1]
            if not all(r is None or type(r) is float for r in readings):
                continue
            if name in parents and all(r is None for r in readings):
                continue
            numeric.append(name)
        return numeric

    def field_times(self, name):
        """The `timestamp` of each report that has the field."""
        times = self.times
        indexes = self.columns[name][0]
        if len(indexes) == len(times):
            return list(times)
        return [times[i] for i in indexes]

    def device_times(self, name):
        """The `device_timestamp` of each report that has the field, None where it has none."""
        column = self.columns.get("device_timestamp")
        if column is None:
            return [None] * len(self.columns[name][0])
        stamps = dict(zip(*column))
        return [stamps.get(i) for i in self.columns[name][0]]


def is_object(node):
    """Whether a parsed JSON node is an object: its pairs, as `parse_json_object` keeps them."""
    return type(node) is list and all(type(item) is tuple for item in node)


def flatten(prefix, pairs, out):
    """The entries of a JSON object as dotted names; numbers become floats (nan and inf null),
    and anything else but an object becomes text."""
    for key, value in pairs:
        kind = type(value)
        if kind is float:
            out[prefix + key] = value if math.isfinite(value) else None
        elif kind is list and is_object(value):
            flatten(prefix + key + ".", value, out)
        elif value is None:
            out[prefix + key] = None
        elif kind is int:
            try:
                number = float(value)
            except OverflowError:
                number = None
            out[prefix + key] = number
        elif kind is str:
            out[prefix + key] = number_or_text(value)
        else:
            # true, false and arrays are text, as they print
            out[prefix + key] = str(value)


# Pairs, not a dict: a value and a subsection may share a key. One decoder for every line, since
# making one is a good part of the cost of a short line.
JSON_DECODER = json.JSONDecoder(object_pairs_hook=list)


def parse_json_object(text):
    node = JSON_DECODER.decode(unbare_nonfinite(text))
    if not isinstance(node, list) or (node and not isinstance(node[0], tuple)):
        raise ValueError("not an object")
    return node


def parse_json_line(text):
    flat = {}
    flatten("", parse_json_object(text), flat)
    return flat


def split_csv_line(text):
    # The csv module is slow per line; a line without quotes or characters it treats specially
    # splits the same way at the commas.
    if '"' in text or "\r" in text or "\0" in text:
        return next(csv.reader([text]))
    return text.split(",")


def parse_csv_line(header, text):
    cells = split_csv_line(text)
    if len(cells) != len(header):
        raise ValueError("cell count")
    flat = {}
    isfinite = math.isfinite
    for name, cell in zip(header, cells):
        if cell[:1] == "{":
            try:
                node = parse_json_object(cell)
            except ValueError:
                node = None
            if node is not None:
                # A map cell: its entries become fields of their own, as they do in JSON.
                flatten(name + ".", node, flat)
                continue
        # number_or_text, written out: this runs for every cell of a long run.
        try:
            number = float(cell)
        except ValueError:
            flat[name] = None if cell == "null" else cell
            continue
        flat[name] = number if isfinite(number) else None
    return flat


def parse_report(text):
    """Turns a report file's text into a Report, or raises ReportError."""
    lines = text.split("\n")
    cut_off = lines[-1].strip() != ""
    # A run killed mid-write leaves its last line without a line end, and perhaps mid-number.
    lines = lines[:-1]
    numbered = [(n + 1, line.rstrip("\r")) for n, line in enumerate(lines) if line.strip()]
    if not numbered:
        raise ReportError("no complete line: the file is empty" if not cut_off else
                          "no complete line: the file holds only a cut-off line")
    first_number, first = numbered[0]
    if first.lstrip().startswith("{"):
        report = Report("json")
        body = numbered
        parse = parse_json_line
    else:
        header = next(csv.reader([first]))
        if "timestamp" not in header:
            raise ReportError("not an emberline report: line %d is neither a JSON object nor a "
                              "CSV header with a timestamp column" % first_number)
        report = Report("csv")
        body = numbered[1:]
        parse = lambda line: parse_csv_line(header, line)  # noqa: E731
    report.cut_off = cut_off
    for number, line in body:
        try:
            flat = parse(line)
        except (ValueError, StopIteration, csv.Error, RecursionError):
            report.skipped.append(number)
            continue
        report.add(flat, number)
    if not report.times:
        if report.kind == "csv" and not body:
            raise ReportError("the file holds a CSV header but no reports")
        raise ReportError("not an emberline report: no line holds a report with a timestamp")
    return report


def display_name(path):
    return "standard input" if path == "-" else path


def load_report(path):
    """The Report of a file (or - for standard input); errors name the file."""
    name = display_name(path)
    try:
        return parse_report(read_text(path))
    except ReportError as e:
        raise ReportError("%s: %s" % (name, e))


def warn_about(report, name):
    if report.cut_off:
        print("%s: %s: ignored the cut-off last line" % (PROG, name), file=sys.stderr)
    if report.skipped:
        print("%s: %s: skipped %d lines that are not reports (first: line %d)" % (
            PROG, name, len(report.skipped), report.skipped[0]), file=sys.stderr)
