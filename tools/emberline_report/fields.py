"""Choosing fields by name or shell pattern, and reading one field of a report in its unit."""

import fnmatch

from .reading import ReportError
from .units import scale_of

# Raw and smoothed power of both supplies: what a plot shows and a gate watches by default.
POWER_FIELDS = ("power.raw", "power.smooth", "power_usb.raw", "power_usb.smooth")


def parse_patterns(arguments):
    """--fields values, each comma-separated, into one list of patterns; None if not given."""
    if not arguments:
        return None
    return [p.strip() for arg in arguments for p in arg.split(",") if p.strip()]


def select_fields(numeric, patterns, having="the report has"):
    """The fields that the patterns name, in the order of `numeric`; the power fields if None.
    `having` names whose fields they are, in the error texts."""
    if patterns is None:
        chosen = [name for name in POWER_FIELDS if name in numeric]
        if not chosen:
            raise ReportError("%s no power fields; choose fields with --fields" % having)
        return chosen
    chosen = []
    for pattern in patterns:
        matches = [name for name in numeric if fnmatch.fnmatchcase(name, pattern)]
        if not matches:
            raise ReportError("no numeric field matches '%s'; %s: %s" % (
                pattern, having, ", ".join(numeric)))
        chosen += [name for name in matches if name not in chosen]
    return chosen


def series(report, name):
    """(time, reading) of every report that has the field, null as None, in the field's unit."""
    scale = scale_of(name)
    return [(t, None if r is None else r * scale)
            for t, r in zip(report.field_times(name), report.readings(name))]
