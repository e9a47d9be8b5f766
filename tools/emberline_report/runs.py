"""A run as `compare` sees it, whether it comes from a report file or from the store."""

from .fields import series
from .stats import energy_j, mean
from .units import is_integrated


class FileRun:
    """One report file's run. Readings are in their field's unit (fractions as %)."""

    def __init__(self, report, name):
        self.report = report
        self.name = name
        self.reports = len(report.times)
        self._series = {}

    def fields(self):
        return self.report.numeric_fields()

    def series(self, name):
        """(timestamp, reading or None) of every report that has the field."""
        if name not in self._series:
            self._series[name] = series(self.report, name)
        return self._series[name]

    def readings(self, name):
        return [r for _, r in self.series(name) if r is not None]

    def mean(self, name):
        return mean([r for _, r in self.series(name) if r is not None])

    def energy(self, name):
        if not is_integrated(name):
            return None
        points = self.series(name)
        return energy_j([t for t, _ in points], [r for _, r in points])
