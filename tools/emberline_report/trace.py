"""`trace`: every numeric field of a report file as a counter track of a Perfetto trace, so that
CPU, thermals, credits, rails and power can be seen on one timeline.

The file follows the conventions of the tool's own traces (`-p`): one trusted packet sequence that
opens with a clock snapshot, a descriptor for each track before its first event, and the counter
tracks below one parent track. Reports are placed at their `device_timestamp`, the wall clock, so
the trace's clock is the realtime clock."""

import hashlib
import os
import struct
import sys
import tempfile

from . import PROG
from .protobuf import LENGTH_DELIMITED, FIXED64, message, tag, text, uint, varint
from .reading import TIME_FIELDS, ReportError
from .units import unit_of

# Field numbers of Perfetto's trace protos (protos/perfetto/trace/perfetto_trace.proto).
TRACE_PACKET = 1
PACKET_TIMESTAMP = 8
PACKET_TIMESTAMP_CLOCK_ID = 58
PACKET_SEQUENCE_ID = 10
PACKET_SEQUENCE_FLAGS = 13
PACKET_FIRST_ON_SEQUENCE = 87
PACKET_CLOCK_SNAPSHOT = 6
PACKET_TRACK_EVENT = 11
PACKET_TRACK_DESCRIPTOR = 60
SNAPSHOT_CLOCKS = 1
SNAPSHOT_PRIMARY_CLOCK = 2
CLOCK_ID = 1
CLOCK_TIMESTAMP = 2
DESCRIPTOR_UUID = 1
DESCRIPTOR_NAME = 2
DESCRIPTOR_PARENT_UUID = 5
DESCRIPTOR_COUNTER = 8
DESCRIPTOR_CHILD_ORDERING = 11
DESCRIPTOR_SIBLING_RANK = 12
COUNTER_UNIT_NAME = 6
EVENT_TYPE = 9
EVENT_TRACK_UUID = 11
EVENT_DOUBLE_VALUE = 44

BUILTIN_CLOCK_REALTIME = 1
SEQ_INCREMENTAL_STATE_CLEARED = 1
TYPE_COUNTER = 4
# The report's fields keep their order in the UI rather than being sorted by name.
CHILD_ORDERING_EXPLICIT = 3
SEQUENCE = 1


def traced_fields(report):
    """Fields with at least one number, in report order; their text readings leave gaps."""
    names = []
    for name, (_, readings) in report.columns.items():
        if name not in TIME_FIELDS and any(type(r) is float for r in readings):
            names.append(name)
    return names


def uuid_of(*names):
    """A track's uuid, the same for the same names in every trace; 0 is the global track."""
    digest = hashlib.sha256("\0".join(names).encode("utf-8")).digest()
    return int.from_bytes(digest[:8], "little") >> 1 | 1


def nanoseconds(seconds):
    # Microseconds first: seconds since the epoch times 1e9 would pass 2**53 and lose the
    # milliseconds the tool prints.
    return round(seconds * 1e6) * 1000


def packet(*fields, timestamp=None):
    body = b""
    if timestamp is not None:
        body += uint(PACKET_TIMESTAMP, timestamp) + uint(PACKET_TIMESTAMP_CLOCK_ID,
                                                         BUILTIN_CLOCK_REALTIME)
    body += uint(PACKET_SEQUENCE_ID, SEQUENCE) + b"".join(fields)
    return message(TRACE_PACKET, body)


def clock_snapshot(first_ns):
    clock = message(SNAPSHOT_CLOCKS, uint(CLOCK_ID, BUILTIN_CLOCK_REALTIME) +
                    uint(CLOCK_TIMESTAMP, first_ns))
    snapshot = clock + uint(SNAPSHOT_PRIMARY_CLOCK, BUILTIN_CLOCK_REALTIME)
    return packet(uint(PACKET_SEQUENCE_FLAGS, SEQ_INCREMENTAL_STATE_CLEARED),
                  uint(PACKET_FIRST_ON_SEQUENCE, 1), message(PACKET_CLOCK_SNAPSHOT, snapshot))


def report_track(uuid, name, first_ns):
    descriptor = (uint(DESCRIPTOR_UUID, uuid) + text(DESCRIPTOR_NAME, name) +
                  uint(DESCRIPTOR_CHILD_ORDERING, CHILD_ORDERING_EXPLICIT))
    return packet(message(PACKET_TRACK_DESCRIPTOR, descriptor), timestamp=first_ns)


def counter_track(uuid, parent, name, rank, first_ns):
    unit = unit_of(name)
    # Fractions stay fractions, as the file has them, so "%" would mislabel them.
    counter = text(COUNTER_UNIT_NAME, unit) if unit and unit != "%" else b""
    descriptor = (uint(DESCRIPTOR_UUID, uuid) + text(DESCRIPTOR_NAME, name) +
                  uint(DESCRIPTOR_PARENT_UUID, parent) + message(DESCRIPTOR_COUNTER, counter) +
                  uint(DESCRIPTOR_SIBLING_RANK, rank))
    return packet(message(PACKET_TRACK_DESCRIPTOR, descriptor), timestamp=first_ns)


class CounterEvents:
    """Encodes the counter events of one track. A long run has millions of them, so what is the
    same for every event of a track, or of a report, is encoded once: an event is its packet's
    timestamp and its value, around constant bytes."""

    def __init__(self, uuid):
        head = uint(EVENT_TYPE, TYPE_COUNTER) + uint(EVENT_TRACK_UUID, uuid) + tag(
            EVENT_DOUBLE_VALUE, FIXED64)
        # Every field of a packet but the timestamp, which comes first, and the value, last.
        self.middle = (uint(PACKET_TIMESTAMP_CLOCK_ID, BUILTIN_CLOCK_REALTIME) +
                       uint(PACKET_SEQUENCE_ID, SEQUENCE) + tag(PACKET_TRACK_EVENT,
                                                                LENGTH_DELIMITED) +
                       varint(len(head) + 8) + head)

    def encode(self, stamp_field, value):
        """`stamp_field` is the packet's encoded timestamp field (see `timestamp_field`)."""
        body_length = len(stamp_field) + len(self.middle) + 8
        return (PACKET_TAG + varint(body_length) + stamp_field + self.middle +
                DOUBLE.pack(value))


PACKET_TAG = tag(TRACE_PACKET, LENGTH_DELIMITED)
DOUBLE = struct.Struct("<d")


def timestamp_field(nanoseconds):
    return uint(PACKET_TIMESTAMP, nanoseconds)


def report_times(report):
    """Each report's device_timestamp in nanoseconds, None where it has none."""
    stamps = [None] * len(report.times)
    column = report.columns.get("device_timestamp")
    if column is not None:
        for index, reading in zip(*column):
            if type(reading) is float:
                stamps[index] = nanoseconds(reading)
    return stamps


def write_trace(report, name, out):
    """Writes the trace of `report` to the file `out`; returns how many reports were left out
    for want of a device_timestamp."""
    stamps = report_times(report)
    placed = [s for s in stamps if s is not None]
    if not placed:
        raise ReportError("%s: no report has a device_timestamp to place it in time" % name)
    first = min(placed)
    name = os.path.basename(name)
    parent = uuid_of(name)
    fields = traced_fields(report)
    directory = os.path.dirname(os.path.abspath(out))
    try:
        # A trace is written whole or not at all: beside its place first, then renamed.
        handle, temporary = tempfile.mkstemp(prefix=".emberline-trace-", dir=directory)
    except OSError as e:
        raise ReportError("cannot write %s: %s" % (out, e.strerror))
    try:
        # mkstemp makes the file private; a trace is an ordinary file of the user's.
        umask = os.umask(0)
        os.umask(umask)
        os.fchmod(handle, 0o666 & ~umask)
        with os.fdopen(handle, "wb") as f:
            f.write(clock_snapshot(first))
            f.write(report_track(parent, name, first))
            tracks = {}
            for rank, field in enumerate(fields):
                uuid = uuid_of(name, field)
                tracks[field] = CounterEvents(uuid)
                f.write(counter_track(uuid, parent, field, rank, first))
            # Events in report order, as the tool emits them, rather than field by field.
            by_report = [[] for _ in stamps]
            for field in fields:
                track = tracks[field]
                for index, reading in zip(*report.columns[field]):
                    if type(reading) is float and stamps[index] is not None:
                        by_report[index].append((track, reading))
            for stamp, events in zip(stamps, by_report):
                if events:
                    stamp_field = timestamp_field(stamp)
                    f.write(b"".join(track.encode(stamp_field, reading)
                                     for track, reading in events))
        os.replace(temporary, out)
    except OSError as e:
        try:
            os.unlink(temporary)
        except OSError:
            pass
        raise ReportError("cannot write %s: %s" % (out, e.strerror))
    return len(stamps) - len(placed)


def note_unplaced(count, name):
    if count:
        print("%s: %s: left out %d report%s without a device_timestamp" % (
            PROG, name, count, "" if count == 1 else "s"), file=sys.stderr)
