"""95% intervals for the difference of two means, and the verdict they give.

One run a side: readings of power, temperature or load each resemble their neighbour, so a run
of n readings holds far fewer than n independent ones, and an interval that treats them as
independent is too narrow. The variance of a run's mean is taken from its autocovariances,
summed up to the lag where Geyer's initial positive sequence ends (Geyer 1992, "Practical Markov
chain Monte Carlo", Statistical Science 7(4)), with the autocovariances corrected for the share of
the run's own mean in them (the bias that Bayley and Hammersley 1946 describe for the effective
number of observations of an autocorrelated series). The interval is Student's t on those
variances, with Welch-Satterthwaite degrees of freedom; each side's own are the equivalent degrees
of freedom of the truncated sum at frequency zero (Priestley 1981, "Spectral Analysis and Time
Series", section 6.2).

Several runs a side: each run's mean (or energy) is one observation, and the interval is Welch's
(Welch 1947, "The generalization of 'Student's' problem when several different population
variances are involved", Biometrika 34), so that the variation between runs decides.
"""

import math
from statistics import NormalDist

import numpy as np

CONFIDENCE = 0.95
# Fewer readings than this give no interval: the autocovariances would mean nothing.
MIN_READINGS = 8
# The truncation lag may use at most this share of a run's readings; a run whose readings stay
# alike for longer is too short to tell its mean from another's, and gets no interval.
MAX_LAG_SHARE = 0.25


def regularized_beta(a, b, x):
    """I_x(a, b), by the continued fraction of the incomplete beta function evaluated with
    Lentz's method (Press et al., Numerical Recipes, 3rd ed., section 6.4)."""
    if x <= 0.0:
        return 0.0
    if x >= 1.0:
        return 1.0
    if x > (a + 1.0) / (a + b + 2.0):
        return 1.0 - regularized_beta(b, a, 1.0 - x)
    log_front = (math.lgamma(a + b) - math.lgamma(a) - math.lgamma(b) + a * math.log(x) +
                 b * math.log1p(-x))
    tiny = 1e-300
    c, d = 1.0, 1.0 - (a + b) * x / (a + 1.0)
    d = 1.0 / (d if abs(d) > tiny else tiny)
    fraction = d
    for m in range(1, 500):
        for numerator in (m * (b - m) * x / ((a + 2 * m - 1) * (a + 2 * m)),
                          -(a + m) * (a + b + m) * x / ((a + 2 * m) * (a + 2 * m + 1))):
            d = 1.0 + numerator * d
            d = 1.0 / (d if abs(d) > tiny else tiny)
            c = 1.0 + numerator / c
            c = c if abs(c) > tiny else tiny
            fraction *= c * d
        if abs(c * d - 1.0) < 1e-15:
            break
    return math.exp(log_front) * fraction / a


def t_cdf(t, df):
    tail = 0.5 * regularized_beta(df / 2.0, 0.5, df / (df + t * t))
    return 1.0 - tail if t > 0 else tail


def t_quantile(p, df):
    """The p quantile (p above one half) of Student's t with df degrees of freedom, df > 0 and
    not necessarily whole, as Welch's degrees of freedom are."""
    if df > 1e7:
        return NormalDist().inv_cdf(p)
    low, high = 0.0, 1.0
    while t_cdf(high, df) < p:
        low, high = high, high * 2.0
    for _ in range(200):
        middle = (low + high) / 2.0
        if t_cdf(middle, df) < p:
            low = middle
        else:
            high = middle
        if high - low <= 1e-12 * high:
            break
    return (low + high) / 2.0


class Estimate:
    """A side's mean with the variance of that mean and the degrees of freedom of the variance."""

    def __init__(self, mean, variance, df):
        self.mean = mean
        self.variance = variance
        self.df = df


def autocovariances(readings):
    """Sums of products of deviations from the mean at lags 0..n-1, by FFT."""
    n = len(readings)
    deviations = readings - readings.mean()
    spectrum = np.fft.rfft(deviations, 2 * n)
    return np.fft.irfft(spectrum * np.conj(spectrum), 2 * n)[:n]


def initial_positive_lag(sums):
    """The last lag of Geyer's initial positive sequence: pairs of adjacent autocovariances
    (lags 2m and 2m+1) are summed while each pair is positive."""
    whole = len(sums) // 2 * 2
    pairs = sums[0:whole:2] + sums[1:whole:2]
    ends = np.flatnonzero(pairs <= 0)
    positive = int(ends[0]) if len(ends) else len(pairs)
    return max(2 * positive - 1, 0)


def dependent_mean(readings):
    """The Estimate of one run's mean from its autocorrelated readings, or None when the run is
    too short for its dependence."""
    x = np.asarray(readings, dtype=float)
    n = len(x)
    if n < MIN_READINGS:
        return None
    # The same mean as the one shown beside the interval, to the last bit.
    mean = math.fsum(readings) / n
    sums = autocovariances(x)
    if sums[0] <= 0.0:
        return Estimate(mean, 0.0, float(n - 1))
    lag = initial_positive_lag(sums)
    if lag > MAX_LAG_SHARE * (n - 1):
        return None
    # Each autocovariance of deviations from the run's own mean falls short by about the
    # variance of that mean, so the 2M+1 summed lags fall short by (2M+1) of it.
    unbiased = sums[:lag + 1] / (n - np.arange(lag + 1))
    window = 2 * lag + 1
    variance = (unbiased[0] + 2.0 * unbiased[1:].sum()) / (n - window)
    if variance <= 0.0:
        # Strongly alternating readings: fall back to treating them as independent.
        window = 1
        variance = unbiased[0] / (n - 1)
    return Estimate(mean, float(variance), n / window)


def independent_mean(values):
    """The Estimate of the mean of independent values (one per run), or None below two."""
    n = len(values)
    if n < 2:
        return None
    mean = math.fsum(values) / n
    variance = math.fsum((v - mean) ** 2 for v in values) / (n - 1) / n
    return Estimate(mean, variance, float(n - 1))


def difference_interval(a, b):
    """95% interval of b.mean - a.mean: Student's t with Welch-Satterthwaite degrees of freedom,
    or None when either side has no estimate."""
    if a is None or b is None:
        return None
    delta = b.mean - a.mean
    variance = a.variance + b.variance
    if variance <= 0.0:
        return (delta, delta)
    df = variance ** 2 / sum(e.variance ** 2 / e.df for e in (a, b) if e.variance > 0.0)
    half = t_quantile(0.5 + CONFIDENCE / 2.0, df) * math.sqrt(variance)
    return (delta - half, delta + half)


def verdict(interval):
    """"higher" or "lower" when the interval leaves 0 out, else "none": no difference shown at
    this length, which is not the same as no difference."""
    if interval is not None and interval[0] > 0.0:
        return "higher"
    if interval is not None and interval[1] < 0.0:
        return "lower"
    return "none"
