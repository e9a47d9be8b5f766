"""Images of reports: one run's fields over time, and two sides of a comparison."""

import math

from .reading import ReportError
from .units import unit_of

PANEL_HEIGHT_IN = 2.6
FIGURE_WIDTH_IN = 10.0
MARGIN_HEIGHT_IN = 1.2
DPI = 100
# A short run's readings are drawn as dots too, so a lone reading between nulls stays visible.
MARKERS_UP_TO = 120


def new_figure(width_in, height_in):
    import matplotlib
    matplotlib.use("Agg")
    from matplotlib.figure import Figure
    return Figure(figsize=(width_in, height_in), dpi=DPI, layout="constrained")


def save(figure, out):
    try:
        figure.savefig(out, dpi=DPI)
    except OSError as e:
        raise ReportError("cannot write %s: %s" % (out, e.strerror))


def plot_run(series_by_name, title, out):
    """One panel per unit, sharing the time axis; a null breaks its line rather than dip to 0.
    `series_by_name` maps each field to its (time, reading) pairs."""
    units = []
    for name in series_by_name:
        if unit_of(name) not in units:
            units.append(unit_of(name))
    figure = new_figure(FIGURE_WIDTH_IN, MARGIN_HEIGHT_IN + PANEL_HEIGHT_IN * len(units))
    axes = figure.subplots(len(units), 1, sharex=True, squeeze=False)[:, 0]
    for ax, unit in zip(axes, units):
        for name, series in series_by_name.items():
            if unit_of(name) == unit:
                ax.plot([t for t, _ in series],
                        [math.nan if r is None else r for _, r in series], label=name, lw=1.2,
                        marker="." if len(series) <= MARKERS_UP_TO else None)
        ax.set_ylabel(unit or "value")
        ax.grid(True, alpha=0.3)
        ax.legend(loc="best", fontsize="small")
    axes[0].set_title(title)
    axes[-1].set_xlabel("time from the start (s)")
    save(figure, out)


SIDE_COLOURS = {"A": "tab:blue", "B": "tab:orange"}


def plot_sides(fields, sides, title, out):
    """A row per field: every run of both sides over time, overlaid, and the readings' spread
    on each side, box beside box. `sides` maps "A" and "B" to a list of runs, each a mapping of
    field to (time, reading) pairs."""
    figure = new_figure(FIGURE_WIDTH_IN + 3, MARGIN_HEIGHT_IN + PANEL_HEIGHT_IN * len(fields))
    grid = figure.add_gridspec(len(fields), 2, width_ratios=(3, 1))
    first = None
    for row, name in enumerate(fields):
        over_time = figure.add_subplot(grid[row, 0], sharex=first)
        first = first or over_time
        spread = figure.add_subplot(grid[row, 1], sharey=over_time)
        boxes = []
        for side, runs in sides.items():
            readings = []
            for number, run in enumerate(runs):
                series = run.get(name, [])
                readings += [r for _, r in series if r is not None]
                over_time.plot([t for t, _ in series],
                               [math.nan if r is None else r for _, r in series],
                               color=SIDE_COLOURS[side], lw=1.0, alpha=0.8,
                               label="%s (%d run%s)" % (side, len(runs), "" if len(runs) == 1
                                                        else "s") if number == 0 else None)
            boxes.append(readings)
        drawn = spread.boxplot(boxes, widths=0.6, patch_artist=True,
                               medianprops={"color": "black"})
        for box, side in zip(drawn["boxes"], sides):
            box.set_facecolor(SIDE_COLOURS[side])
            box.set_alpha(0.6)
        spread.set_xticks(range(1, len(sides) + 1), list(sides))
        unit = unit_of(name)
        over_time.set_ylabel("%s (%s)" % (name, unit) if unit else name, fontsize="small")
        over_time.grid(True, alpha=0.3)
        spread.grid(True, alpha=0.3)
        spread.tick_params(labelleft=False)
        if row == 0:
            over_time.legend(loc="best", fontsize="small")
            over_time.set_title(title)
            spread.set_title("readings")
    over_time.set_xlabel("time from the start (s)")
    save(figure, out)
