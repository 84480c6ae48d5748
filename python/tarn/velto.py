"""Reads and writes messages by docs/format.md.

The types are {name: slots}. A record is a dictionary with a key for each slot: a number; bytes for an array of bytes, a
string and a vector of bytes; a dictionary for a record; a list for records and for numbers; None for no string and for
a vector without elements.
"""

import struct
from dataclasses import dataclass

LONGEST = 0x7FFFFFFF
MOST_TABLES = 1_000_000  # in one message: elements may lead to the same bytes, so a short one can make a long record


class Refused(Exception):
    """By a rule of "Reading", or as too large; `type` is that of the table that is refused, `inside` whether it is
    inside of another, `numbers` what the rule compares: of a rule on a table those that are known."""

    def __init__(self, rule, what, type=None, inside=False, numbers=()):
        super().__init__(f"rule {rule}: {what}")
        self.rule, self.type, self.inside, self.numbers = rule, type, inside, numbers


@dataclass(frozen=True)
class Slot:
    """`shape` is scalar, string, array, vector, table, run or tables; `width` of a number or an element, `length` of an
    array or a run, `inner` the name of a type in it."""

    member: str
    shape: str
    width: int = 4
    length: int | None = None
    inner: str | None = None


def type_hash(name):
    number = 0x811C9DC5
    for byte in f"Tarn_sys_diag.{name}".encode():
        number = (number ^ byte) * 0x01000193 % 2**32
    return number


def absent(types, slot):
    """What a reader takes for a field that is not there."""
    if slot.shape == "scalar":
        return 0
    if slot.shape == "array":
        return bytes(slot.length) if slot.width == 1 else [0] * slot.length
    empty = {inner.member: absent(types, inner) for inner in types.get(slot.inner, [])}
    return {"table": empty, "run": [empty] * (slot.length or 0)}.get(slot.shape)


class Reader:
    def __init__(self, types, message):
        self.types, self.message, self.size, self.tables = types, message, len(message), 0

    def number(self, at, width):
        assert 0 <= at <= self.size - width, "a number outside of the message"
        return int.from_bytes(self.message[at : at + width], "little")

    def read(self, name):
        if not 4 <= self.size <= LONGEST:
            raise Refused("length", f"message of {self.size} bytes", name, numbers=(self.size,))
        return self.table(self.number(0, 4), name, inside=False)

    def table(self, table, name, inside):
        last = self.size - 4
        if not 4 <= table <= last:
            raise Refused(1, f"table at {table}", name, inside, (table, self.size))
        vtable = (table - self.number(table, 4)) % 2**32
        if not 4 <= vtable <= last:
            raise Refused(2, f"vtable at {vtable}", name, inside, (table, last))
        length = self.number(vtable, 2)
        if length > self.size - vtable:
            raise Refused(3, f"vtable of {length} bytes", name, inside, (length, self.size - vtable))
        self.tables += 1
        if self.tables > MOST_TABLES:
            raise Refused("size", f"more than {MOST_TABLES} records", name, inside)
        record = {}
        for i, slot in enumerate(self.types[name]):
            offset = self.number(vtable + 4 + 2 * i, 2) if i < (length - 4) // 2 else 0
            record[slot.member] = self.field(table + offset, slot) if offset else absent(self.types, slot)
        return record

    def field(self, at, slot):
        width = slot.width if slot.shape == "scalar" else 4
        if at + width > self.size:
            raise Refused(5, f"{slot.member} at {at}")
        if slot.shape == "scalar":
            return self.number(at, slot.width)
        if slot.shape == "table":
            return self.inner(at, slot)
        at += self.number(at, 4)
        if at > self.size - 4:
            raise Refused(7, f"{slot.member}: count at {at}")
        count = self.number(at, 4)
        at += 4
        if count > (self.size - at) // slot.width:
            raise Refused(8, f"{slot.member}: {count} elements")
        if slot.length not in (None, count):
            raise Refused(9, f"{slot.member}: {count} elements, expected {slot.length}")
        return self.elements(at, count, slot)

    def elements(self, at, count, slot):
        if count == 0 and slot.shape in ("vector", "tables"):
            return None
        if slot.inner is None and slot.width == 1:
            return bytes(self.message[at : at + count])
        places = range(at, at + slot.width * count, slot.width)
        if slot.inner is None:
            return [self.number(place, slot.width) for place in places]
        return [self.inner(place, slot) for place in places]

    def inner(self, word, slot):
        table = word + self.number(word, 4)
        if table >= 2**32:
            raise Refused(6, f"{slot.member}: table at {table}")
        return self.table(table, slot.inner, inside=True)


def read(types, name, message):
    return Reader(types, message).read(name)


def elements_of(value, slot):
    """A count, and the bytes of what is no table."""
    data = value if slot.width == 1 else b"".join(element.to_bytes(slot.width, "little") for element in value)
    return struct.pack("<I", len(value)) + data


def write_regular(types, name, record):
    def table(name, record):
        """A table, its vtable first."""
        slots = types[name]
        head = 4 + 2 * len(slots)
        offsets, scalars, behind = [0] * len(slots), b"", []
        for i, slot in enumerate(slots):
            value = record[slot.member]
            if slot.shape == "scalar" and value != 0:
                offsets[i] = 4 + len(scalars)
                scalars += value.to_bytes(slot.width, "little")
            elif slot.shape != "scalar" and value is not None:
                behind.append((i, slot, value))
        words, data = b"", b""
        for place, (i, slot, value) in enumerate(behind):
            offsets[i] = 4 + len(scalars) + 4 * place
            lead = 4 + 2 * len(types[slot.inner]) if slot.shape == "table" else 0
            words += struct.pack("<I", 4 * (len(behind) - place) + len(data) + lead)
            data += content(slot, value)
        fields = struct.pack("<I", head) + scalars + words + data
        return struct.pack(f"<{2 + len(slots)}H", head, len(fields) % 2**16, *offsets) + fields

    def content(slot, value):
        if slot.shape == "string":
            return elements_of(value, slot) + b"\0"
        if slot.shape == "table":
            return table(slot.inner, value)
        if not slot.inner:
            return elements_of(value, slot)
        tables, words = b"", b""
        for i, element in enumerate(value):
            words += struct.pack("<I", 4 * (len(value) - i) + len(tables) + 4 + 2 * len(types[slot.inner]))
            tables += table(slot.inner, element)
        return struct.pack("<I", len(value)) + words + tables

    return struct.pack("<I", 4 + 4 + 2 * len(types[name])) + table(name, record)


def write_fixed(types, name, record, gap=0):
    """`gap` is what the bytes have that are not written."""
    message = bytearray()

    def align(width):
        message.extend([gap] * (-len(message) % width))

    def table(name, record):
        start, offsets = len(message), []
        message.extend(bytes(4))
        for slot in types[name]:
            align(min(slot.width, 4) if slot.shape == "scalar" else 4)
            offsets.append(len(message) - start)
            field(slot, record[slot.member])
        length = len(message) - start
        align(4)
        message[start : start + 4] = struct.pack("<i", start - len(message))
        message.extend(struct.pack(f"<{2 + len(offsets)}H", 4 + 2 * len(offsets), length, *offsets))

    def field(slot, value):
        if slot.shape == "scalar":
            message.extend(value.to_bytes(slot.width, "little"))
            return
        message.extend(struct.pack("<I", 4))
        if slot.shape == "table":
            table(slot.inner, value)
        elif slot.shape == "run":
            message.extend(struct.pack("<I", len(value)))
            words = len(message)
            message.extend(bytes(4 * len(value)))
            for word, element in zip(range(words, len(message), 4), value):
                align(4)
                message[word : word + 4] = struct.pack("<I", len(message) - word)
                table(slot.inner, element)
        else:
            message.extend(elements_of(value, slot))

    message.extend(struct.pack("<I", 4))
    table(name, record)
    align(8)
    return bytes(message)
