"""Images of reports: one run's fields over time."""

import math

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
    figure.savefig(out, dpi=DPI)
