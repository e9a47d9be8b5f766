"""`summary`: statistics and energy of every numeric field of one run."""

import math

from .stats import energy_j, percentile
from .units import is_integrated, scale_of, unit_of


def field_summary(report, name):
    raw = report.readings(name)
    scale = scale_of(name)
    present = [r for r in raw if r is not None]
    if scale != 1.0:
        present = [r * scale for r in present]
    readings = sorted(present)
    row = {"unit": unit_of(name), "count": len(readings), "nulls": len(raw) - len(readings)}
    if readings:
        row.update(mean=math.fsum(readings) / len(readings), min=readings[0],
                   median=percentile(readings, 0.5), p95=percentile(readings, 0.95),
                   max=readings[-1])
    else:
        row.update(mean=None, min=None, median=None, p95=None, max=None)
    if is_integrated(name):
        times = report.field_times(name)
        if len(present) != len(raw):
            times = [t for t, r in zip(times, raw) if r is not None]
        joules = energy_j(times, present)
        row["energy_j"] = joules
        row["energy_wh"] = None if joules is None else joules / 3600.0
    return row


def summarise(report, source):
    times = report.times
    return {
        "file": source,
        "format": report.kind,
        "reports": len(times),
        "start_s": times[0],
        "end_s": times[-1],
        "duration_s": times[-1] - times[0],
        "skipped_lines": report.skipped,
        "cut_off_last_line": report.cut_off,
        "fields": {name: field_summary(report, name) for name in report.numeric_fields()},
    }


def fmt(value, decimals=3):
    return "-" if value is None else "%.*f" % (decimals, value)


def table(rows, text_columns):
    """Columns padded to their widest cell: the first `text_columns` to the left, numbers to the
    right."""
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
    return ["  ".join(cell.ljust(w) if i < text_columns else cell.rjust(w)
                      for i, (cell, w) in enumerate(zip(row, widths))).rstrip()
            for row in rows]


def summary_text(summary):
    lines = ["%s: %d report%s over %.3f s (timestamp %.3f to %.3f)" % (
        summary["file"], summary["reports"], "" if summary["reports"] == 1 else "s",
        summary["duration_s"], summary["start_s"], summary["end_s"]), ""]
    fields = summary["fields"]
    rows = [["field", "unit", "count", "nulls", "mean", "min", "median", "p95", "max"]]
    for name, f in fields.items():
        rows.append([name, f["unit"] or "", str(f["count"]), str(f["nulls"])] +
                    [fmt(f[k]) for k in ("mean", "min", "median", "p95", "max")])
    lines += table(rows, 2)
    energy = [["energy", "J", "Wh"]] + [[name, fmt(f["energy_j"]), fmt(f["energy_wh"], 6)]
                                       for name, f in fields.items() if "energy_j" in f]
    if len(energy) > 1:
        lines += [""] + table(energy, 1)
    return "\n".join(lines)
