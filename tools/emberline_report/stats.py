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


def trapezoid(points):
    """Integral over the points' own times, so uneven periods weigh what they lasted."""
    return math.fsum((p0 + p1) / 2.0 * (t1 - t0) for (t0, p0), (t1, p1) in zip(points, points[1:]))


def energy_j(times, readings):
    """Energy of a power series in joules; a null reading is bridged by its neighbours."""
    points = [(t, r) for t, r in zip(times, readings) if r is not None]
    return trapezoid(points) if len(points) >= 2 else None
