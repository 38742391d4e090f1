"""Holds vorn_peer.py to test/vectors/. Run from anywhere: python3 examples/peer/vectors_test.py"""
import os
import re
import struct
import sys

sys.dont_write_bytecode = True
from vorn_peer import BadFrame, BadValue, Frames, Reader, Symbol, encode, frame

FOLDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "test", "vectors")
counts = dict.fromkeys(["values read", "values written", "values cut short", "faults", "frames"], 0)
failures = []


def expand(text):
    return re.sub(r"\((\d+):([^()]*)\)", lambda m: int(m[1]) * m[2], text)


def unhex(text):
    return b"" if text == "-" else bytes.fromhex(expand(text))


def rows(name, columns):
    for line in open(os.path.join(FOLDER, name), encoding="utf-8"):
        if line.strip() and not line.startswith("#"):
            cells = [cell.strip() for cell in line.split("|")]
            yield cells + ["="] * (columns - len(cells))


def notation(value):
    """A value as the tables write it down: what compares equal in Python need not be the same."""
    if value is None or isinstance(value, bool):
        return {None: "nil", False: "false", True: "true"}[value]
    if isinstance(value, int):
        return str(value)
    if isinstance(value, float):
        return "d:" + struct.pack(">d", value).hex().upper()
    if isinstance(value, bytes):
        return "b:" + value.hex().upper()
    if isinstance(value, str):
        return ("s:" if isinstance(value, Symbol) else "u:") + value.encode("utf-8", "surrogateescape").hex().upper()
    if isinstance(value, (list, tuple)):
        return "[" + " ".join(map(notation, value)) + "]"
    if isinstance(value, frozenset):
        value = dict(value)
    return "{" + " ".join(notation(key) + "=" + notation(value[key]) for key in value) + "}"


def expect(what, name, expected, got):
    counts[what] += 1
    if expected != got:
        failures.append(f"{what}: {name}: {got} instead of {expected}")


def outcome(payload, levels=64):
    """What is read, or the fault, and where reading stops."""
    reader = Reader(payload, levels)
    try:
        return notation(reader.value()), reader.pos
    except BadValue as bad:
        return "!" + str(bad), bad.pos


# As dict keys, Python confuses a symbol with a text of the same name, and tells a binary string from an equal text.
# Ruby does the opposite.
KEYS_DIFFER = {"hash key as symbol and as utf8", "hash ASCII key as binary and as utf8"}

# Deeper values overflow Python's own stack.
MAX_LEVELS = 200

names = set()
for name, raw, ruby, _, variant, _, ruby_bytes, variant_bytes in rows("values.txt", 8):
    raw, wanted = unhex(raw), expand(variant if ruby.startswith("!") else ruby)
    names.add(name)
    for size in range(len(raw)) if len(raw) < 200 else range(100):
        expect("values cut short", name, "!underrun", outcome(raw[:size])[0][:9])
    if name in KEYS_DIFFER:
        continue
    expect("values read", name, (wanted, len(raw)), outcome(raw + b"\x00"))
    if "=" in (ruby_bytes, variant_bytes):  # one of the writers writes it so
        expect("values written", name, raw.hex(), encode(Reader(raw).value()).hex())
expect("values read", "the names of keys that differ", set(), KEYS_DIFFER - names)

for name, raw, payload, levels, fault, pos, *_ in rows("faults.txt", 8):
    if int(levels) > MAX_LEVELS or fault == "symbol_encoding":  # the latter is Ruby's own refusal
        continue
    raw = unhex(raw)
    size, pos = len(raw) if payload == "all" else int(payload), int(pos)
    found, stopped = outcome(raw[:size], int(levels))
    found = found[1:] if found.startswith("!") else "none"
    if pos > size:  # Ruby reads a string's bytes beyond the payload; a peer should not
        expect("faults", name, "underrun_string", found)
    else:
        expect("faults", name, (fault, pos), (found, stopped))

for name, stream, taken, state, layout, seq, length, payload, out in rows("frames.txt", 9):
    stream = unhex(stream)
    for chunks in ([stream], [stream[i:i + 1] for i in range(len(stream))]):
        found, bad, frames = [], "incomplete", Frames(2**31 - 1)
        try:
            for chunk in chunks:
                found.extend(frames.feed(chunk))
        except BadFrame as error:
            bad = str(error)
        if state == "complete":
            expect("frames", name, (int(seq), unhex(payload)), found[0] if found else bad)
        else:
            expect("frames", name, state, found[0] if found else bad)
    if out == "=":
        expect("frames", name, stream[:int(taken)], frame(int(seq), unhex(payload), layout == "12"))

print("\n".join(failures[:20] + [", ".join(f"{count} {what}" for what, count in counts.items())]))
print(f"{len(failures)} failures")
sys.exit(1 if failures or not all(counts.values()) else 0)
