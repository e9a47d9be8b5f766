"""Descriptive statistics of one run's readings."""

import math


def percentile(ordered, fraction):
    """Linear interpolation between the closest ranks, as numpy's default does."""
    position = (len(ordered) - 1) * fraction
    low = math.floor(position)
    high = min(low + 1, len(ordered) - 1)
    return ordered[low] + (ordered[high] - ordered[low]) * (position - low)


def mean(values):
    return math.fsum(values) / len(values) if values else None


def energy_j(times, readings):
    """Energy of a power series in joules by the trapezoid rule over the readings' own times, so
    uneven periods weigh what they lasted; a null reading is bridged by its neighbours."""
    if any(r is None for r in readings):
        times = [t for t, r in zip(times, readings) if r is not None]
        readings = [r for r in readings if r is not None]
    if len(readings) < 2:
        return None
    return math.fsum([(p0 + p1) / 2.0 * (t1 - t0) for t0, t1, p0, p1 in
                      zip(times, times[1:], readings, readings[1:])])
