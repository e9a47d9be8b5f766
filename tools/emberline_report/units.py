"""Units of report fields. Report files carry none, so a field's unit comes from its dotted name."""

import fnmatch

# The first pattern that matches wins. The units are those the tool's text form prints for the
# same field, except that fractions are shown as percentages, as the text form does too.
UNIT_RULES = (
    ("stats.battery_level", "%"),
    ("stats.gpu.util", "%"),
    ("stats.cpu*.avg_util", "%"),
    ("stats.cpu*.max_util", "%"),
    ("stats.cpu*.cpu_time*", "%"),
    ("stats.cpu*.cpu_cycl*", "%"),
    ("*_prct", "%"),
    ("charge.*Capacity", "%"),
    ("stats.*freq", "GHz"),
    ("dsp.dsp_freq", "MHz"),
    ("*_mhz", "MHz"),
    ("*_mbps", "MB/s"),
    ("*_ms", "ms"),
    ("timing.*", "ms"),
    ("dsp_trace.time_slice_map.*", "ms"),
    ("thermals.fan_rpm", "rpm"),
    ("thermals.*.*", "C"),
    ("charge.*Temp*", "C"),
    ("power*.current", "A"),
    ("power*.voltage", "V"),
    ("power.*", "W"),
    ("power_usb.*", "W"),
    ("power_rails.*", "W"),
    ("quillon_rails.*", "W"),
    ("charge.*Power*", "W"),
    ("charge.*[Cc]urrent*", "A"),
    ("charge.*Voltage*", "V"),
    # The tool prints the battery's charge capacity with a V, and so do we, to match its text.
    ("charge.*Charge Full*", "V"),
    ("charge.*Time To*", "s"),
)

# A standard deviation of power is in watts but integrating it means nothing.
NOT_INTEGRATED = ("*_stdev",)


def unit_of(name):
    for pattern, unit in UNIT_RULES:
        if fnmatch.fnmatchcase(name, pattern):
            return unit
    return None


def scale_of(name):
    """What a stored reading is multiplied by to be in the field's unit: fractions become %."""
    return 100.0 if unit_of(name) == "%" else 1.0


def is_integrated(name):
    """Whether the field is a power, whose integral over a run is its energy."""
    return unit_of(name) == "W" and not any(fnmatch.fnmatchcase(name, p) for p in NOT_INTEGRATED)
