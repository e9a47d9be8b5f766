"""`compare`: does side B differ from side A, field by field, and how sure is that?"""

import json
import math
import sys

from . import PROG
from .fields import select_fields
from .inference import (dependent_mean, difference_interval, independent_mean, verdict)
from .reading import ReportError
from .stats import mean
from .summary import fmt, table
from .units import is_integrated, unit_of

ONE_RUN_METHOD = "one run a side: t on the readings' mean, allowing for their autocorrelation"
RUNS_METHOD = "several runs a side: Welch's t on the runs' means"


def side_fields(runs):
    """The numeric fields of any run of the side, in the order they first appear."""
    seen = {}
    for run in runs:
        for name in run.fields():
            seen.setdefault(name, None)
    return list(seen)


def common_fields(a_runs, b_runs):
    """Fields both sides have, in A's order, and the ones only one side has."""
    a_fields, b_fields = side_fields(a_runs), side_fields(b_runs)
    in_b = set(b_fields)
    common = [name for name in a_fields if name in in_b]
    in_common = set(common)
    one_side = [name for name in a_fields + b_fields if name not in in_common]
    return common, one_side


def row(unit, a_mean, b_mean, interval):
    delta = None if a_mean is None or b_mean is None else b_mean - a_mean
    return {
        "unit": unit,
        "a_mean": a_mean,
        "b_mean": b_mean,
        "delta": delta,
        "delta_pct": None if delta is None or a_mean == 0 else delta / abs(a_mean) * 100.0,
        "ci95": [None, None] if interval is None else list(interval),
        "verdict": verdict(interval),
    }


def one_run_row(name, a_run, b_run):
    a, b = a_run.readings(name), b_run.readings(name)
    a_mean, b_mean = mean(a), mean(b)
    interval = difference_interval(dependent_mean(a), dependent_mean(b))
    return row(unit_of(name), a_mean, b_mean, interval)


def runs_row(unit, a_values, b_values):
    """A row from one value a run (its mean or its energy); runs without the value are left
    out."""
    a_values = [v for v in a_values if v is not None]
    b_values = [v for v in b_values if v is not None]
    interval = difference_interval(independent_mean(a_values), independent_mean(b_values))
    return row(unit, mean(a_values), mean(b_values), interval)


def compare(a_runs, b_runs, names):
    """The comparison of the named fields as the one object `--json` prints."""
    single = len(a_runs) == 1 and len(b_runs) == 1
    fields = {}
    energy = {}
    for name in names:
        if single:
            fields[name] = one_run_row(name, a_runs[0], b_runs[0])
            continue
        fields[name] = runs_row(unit_of(name), [run.mean(name) for run in a_runs],
                                [run.mean(name) for run in b_runs])
        if is_integrated(name):
            energy[name] = runs_row("J", [run.energy(name) for run in a_runs],
                                    [run.energy(name) for run in b_runs])
    return {"a_runs": len(a_runs), "b_runs": len(b_runs), "fields": fields, "energy": energy}


def check_sides(a_runs, b_runs):
    if (len(a_runs) == 1) != (len(b_runs) == 1):
        raise ReportError("cannot compare one run with several: give each side one run, or each "
                          "side two or more (A has %d, B has %d)" % (len(a_runs), len(b_runs)))


def choose_fields(a_runs, b_runs, patterns):
    common, one_side = common_fields(a_runs, b_runs)
    if not common:
        raise ReportError("the two sides have no numeric field in common")
    if one_side and patterns is None:
        print("%s: left out %d field%s that only one side has (first: %s)" % (
            PROG, len(one_side), "" if len(one_side) == 1 else "s", one_side[0]),
            file=sys.stderr)
    chosen = common if patterns is None else select_fields(common, patterns, "both sides have")
    return common, chosen


def above(result, names, percent):
    """The watched fields that are higher by more than `percent`, with their delta_pct."""
    found = []
    for name in names:
        figures = result["fields"][name]
        if figures["verdict"] == "higher" and figures["delta_pct"] is not None and \
                figures["delta_pct"] > percent:
            found.append((name, figures["delta_pct"]))
    return found


def signed(value, decimals=3, suffix=""):
    return "-" if value is None else "%+.*f%s" % (decimals, value, suffix)


def rows_text(first_column, rows):
    out = [[first_column, "unit", "A mean", "B mean", "delta", "delta %", "95% low", "95% high",
            "verdict"]]
    for name, r in rows.items():
        low, high = r["ci95"]
        out.append([name, r["unit"] or "", fmt(r["a_mean"]), fmt(r["b_mean"]),
                    signed(r["delta"]), signed(r["delta_pct"], 2, "%"), signed(low),
                    signed(high), r["verdict"]])
    return table(out, 2)


def describe_side(letter, runs, what):
    count = len(runs)
    reports = sum(run.reports for run in runs)
    return "%s: %d run%s%s, %d report%s: %s" % (
        letter, count, "" if count == 1 else "s", what, reports, "" if reports == 1 else "s",
        ", ".join(run.name for run in runs))


def compare_text(result, a_runs, b_runs, a_what="", b_what=""):
    single = result["a_runs"] == 1 and result["b_runs"] == 1
    lines = [describe_side("A", a_runs, a_what), describe_side("B", b_runs, b_what),
             "95% intervals of B - A, " + (ONE_RUN_METHOD if single else RUNS_METHOD), ""]
    lines += rows_text("field", result["fields"])
    if result["energy"]:
        lines += [""] + rows_text("energy of a run", result["energy"])
    return "\n".join(lines)


def shown_fields(common, chosen, patterns):
    """The fields --plot draws and --fail-above watches: the chosen ones, or the power fields
    when no --fields was given."""
    if patterns is not None:
        return chosen
    return select_fields(common, None, "both sides have")


def finite_json(value):
    """NaN and infinities cannot stand in JSON; they only come from degenerate input."""
    if isinstance(value, float) and not math.isfinite(value):
        return None
    if isinstance(value, dict):
        return {k: finite_json(v) for k, v in value.items()}
    if isinstance(value, list):
        return [finite_json(v) for v in value]
    return value


def run(a_runs, b_runs, patterns, as_json, fail_above, plot_out, sides_named):
    """The whole command once the runs of both sides are at hand; returns the exit code."""
    check_sides(a_runs, b_runs)
    common, chosen = choose_fields(a_runs, b_runs, patterns)
    watched = None
    if fail_above is not None or plot_out is not None:
        watched = shown_fields(common, chosen, patterns)
    result = compare(a_runs, b_runs, chosen)
    if as_json:
        print(json.dumps(finite_json(result)))
    else:
        print(compare_text(result, a_runs, b_runs, *sides_named))
    sys.stdout.flush()
    if plot_out is not None:
        from .plot import plot_sides
        sides = {"A": [{name: each.series(name) for name in watched} for each in a_runs],
                 "B": [{name: each.series(name) for name in watched} for each in b_runs]}
        plot_sides(watched, sides, "B against A", plot_out)
    if fail_above is not None:
        found = above(result, watched, fail_above)
        if found:
            print("%s: higher by more than %g%%: %s" % (
                PROG, fail_above, ", ".join("%s (%+.2f%%)" % f for f in found)), file=sys.stderr)
            return 1
    return 0
