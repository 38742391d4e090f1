"""A peer of Vorn RPC in plain Python: the value encoding and both frames. docs/wire/writing-a-peer.md goes with it.

    stream = frame(7, encode({"numbers": [1, 2.5, None]}))
    for seq, payload in Frames(limit=1 << 20).feed(stream): print(seq, list(decode_all(payload)))

str is UTF-8 text, bytes a binary string, Symbol a symbol, list an array, dict a hash.
"""
import struct

LEVELS = 64  # of values within values, the innermost included


class BadValue(Exception):
    """The bytes are no value. Its text is the name of the fault; `pos` is where reading stopped."""

    def __init__(self, fault, pos):
        super().__init__(fault)
        self.pos = pos


class BadFrame(Exception):
    """What follows in the stream cannot be trusted: close the connection."""


class Symbol(str):
    pass


# --- values, written

def groups(number):
    """Seven bits a byte, least significant first; bit 7 says that another follows."""
    while number > 0x7F:
        yield number & 0x7F | 0x80
        number >>= 7
    yield number


def encode(value, level=1):
    if level > LEVELS:
        raise ValueError("more than 64 levels")
    if value is None:
        return b"\x00"
    if isinstance(value, bool):  # before int: in Python True is an int
        return b"\x02" if value else b"\x01"
    if isinstance(value, int):
        if not -2**63 <= value < 2**63:
            raise ValueError("more than 64 bits")
        magnitude = abs(value)
        first = 0x80 | (0x40 if value < 0 else 0) | magnitude & 0x1F
        rest = magnitude >> 5
        return bytes([first | 0x20, *groups(rest)]) if rest else bytes([first])
    if isinstance(value, float):
        return b"\x04" + struct.pack(">d", value)
    if isinstance(value, (str, bytes)):
        kind = 5 if isinstance(value, bytes) else 6 if isinstance(value, Symbol) else 7
        # Text that arrived as invalid UTF-8 is sent unchanged.
        body = value if isinstance(value, bytes) else value.encode("utf-8", "surrogateescape")
        return bytes([kind, *groups(len(body))]) + body
    if isinstance(value, (list, tuple)):
        return b"\x0a" + b"".join(encode(member, level + 1) for member in value) + b"\x0b"
    if isinstance(value, (dict, frozenset)):
        value = dict(value)
        pairs = (encode(key, level + 1) + encode(value[key], level + 1) for key in value)
        return b"\x08" + b"".join(pairs) + b"\x09"
    raise TypeError(f"no encoding for {type(value).__name__}")


# --- values, read

class Reader:
    def __init__(self, payload, levels=LEVELS):
        self.bytes, self.pos, self.levels = payload, 0, levels

    def fail(self, fault):
        raise BadValue(fault, self.pos)

    def at_end(self):
        return self.pos >= len(self.bytes)

    def take(self, size, fault):
        if size > len(self.bytes) - self.pos:
            self.fail(fault)
        self.pos += size
        return self.bytes[self.pos - size:self.pos]

    def number(self, bits, fault):
        """The groups behind a first byte of `bits` data bits and a continuation flag above them."""
        byte = self.take(1, fault)[0]
        magnitude, more, shift = byte & (1 << bits) - 1, byte >> bits & 1, bits
        while more:
            byte = self.take(1, fault)[0]
            magnitude |= (byte & 0x7F) << shift % 64 & 2**64 - 1  # beyond 64 bits groups wrap around
            more, shift = byte >> 7, shift + 7
        return magnitude

    def integer(self):
        negative = self.bytes[self.pos] & 0x40
        magnitude = self.number(5, "underrun_int")
        value = -magnitude % 2**64 if negative else magnitude
        return value - 2**64 if value >= 2**63 else value

    def string(self):
        return self.take(self.number(7, "underrun_length") & 0xFFFFFFFF, "underrun_string")

    def members(self, end, fault):
        """True as long as a member follows; consumes the end mark."""
        if self.at_end():
            self.fail(fault)
        if self.bytes[self.pos] != end:
            return True
        self.pos += 1
        return False

    def value(self, level=1):
        if level > self.levels:
            self.fail("max_depth")
        if self.at_end():
            self.fail("underrun")
        if self.bytes[self.pos] & 0x80:
            return self.integer()
        kind = self.take(1, "underrun")[0]
        if kind < 3:
            return (None, False, True)[kind]
        if kind == 3:
            return struct.unpack(">f", self.take(4, "underrun_float"))[0]
        if kind == 4:
            return struct.unpack(">d", self.take(8, "underrun_double"))[0]
        if kind == 5:
            return self.string()
        if kind in (6, 7):
            text = self.string().decode("utf-8", "surrogateescape")  # texts may be invalid UTF-8
            return Symbol(text) if kind == 6 else text
        if kind == 8:
            pairs = []
            while self.members(0x09, "underrun_hash"):
                pairs.append((self.value(level + 1), self.value(level + 1)))
            # Any value may be a key, lists too. Later pairs replace earlier ones.
            return {freeze(key): value for key, value in pairs}
        if kind == 10:
            array = []
            while self.members(0x0B, "underrun_array"):
                array.append(self.value(level + 1))
            return array
        self.fail("unknown_type")


def freeze(key):
    """Keys of a dict cannot change: a list becomes a tuple, a dict a frozenset of its pairs."""
    if isinstance(key, list):
        return tuple(freeze(member) for member in key)
    if isinstance(key, dict):
        return frozenset((name, freeze(value)) for name, value in key.items())
    return key


def decode_all(payload):
    reader = Reader(payload)
    while not reader.at_end():
        yield reader.value()


# --- frames

def frame(seq, payload, twelve_bytes=False):
    if not twelve_bytes:
        return struct.pack(">BBHI", 0xA5, 1, seq, len(payload)) + payload
    return struct.pack(">BBHI", 0xA5, 0, seq, len(payload) << 8 | 0xDE) + b"\xAD\xBE\xEF\x5A" + payload


class Frames:
    """Cuts a stream that arrives in chunks of any size into frames."""

    def __init__(self, limit):
        self.limit, self.held = limit, b""

    def feed(self, chunk):
        """Yields (sequence number, payload) of each frame that the chunk completes."""
        self.held += chunk
        while True:
            start = self.held.find(b"\xA5")
            self.held = self.held[start:] if start >= 0 else b""  # bytes before a start marker are dropped
            if len(self.held) < 2:
                return
            header = 8 if self.held[1] & 1 else 12
            if len(self.held) < header:
                return
            seq, length = struct.unpack(">HI", self.held[2:8])
            if header == 12:
                length >>= 8
                if self.held[11] != 0x5A:
                    raise BadFrame("Bad Header CRC")
            if length > self.limit:
                raise BadFrame("Payload size exceeds soft limit")
            if len(self.held) < header + length:
                return
            if header == 12 and self.held[7:11] != b"\xDE\xAD\xBE\xEF":
                raise BadFrame("Bad Payload Data CRC")
            payload, self.held = self.held[header:header + length], self.held[header + length:]
            yield seq, payload
