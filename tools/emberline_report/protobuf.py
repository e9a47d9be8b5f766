"""The few protobuf wire-format writers a Perfetto trace needs."""

VARINT = 0
FIXED64 = 1
LENGTH_DELIMITED = 2


def varint(value):
    out = bytearray()
    while value >= 0x80:
        out.append((value & 0x7F) | 0x80)
        value >>= 7
    out.append(value)
    return bytes(out)


def tag(field, wire_type):
    return varint(field << 3 | wire_type)


def uint(field, value):
    return tag(field, VARINT) + varint(value)


def message(field, body):
    """A nested message, or a string or bytes field: `body` is its encoded content."""
    return tag(field, LENGTH_DELIMITED) + varint(len(body)) + body


def text(field, value):
    return message(field, value.encode("utf-8"))
