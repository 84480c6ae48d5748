"""Reads and writes messages by docs/format.md, with the types of tests/golden/interface.txt.

A record is a dictionary with a key for each slot: a number; a dictionary for a record; a list for records and for
numbers; hexadecimal digits for bytes and strings; None for no string and for a vector without elements.
"""

import re
import struct

SCALARS = {"u8": 1, "u16": 2, "u32": 4, "u64": 8}
LONGEST = 0x7FFFFFFF


class Refused(Exception):
    """By a rule of "Reading"; `log` is what the library logs of it, (function, format, what is put in), or None."""

    def __init__(self, rule, what, log=None):
        super().__init__(f"rule {rule}: {what}")
        self.rule = rule
        self.log = log


class Slot:
    """`shape` is scalar, string, array, vector, table, run or tables; `width` of a number or an element, `length` of an
    array or a run, `inner` the name of a type in it."""

    def __init__(self, member, kind):
        self.member, self.inner, self.length = member, None, None
        if kind in SCALARS:
            self.shape, self.width = "scalar", SCALARS[kind]
        elif kind == "string":
            self.shape, self.width = "string", 1
        elif found := re.fullmatch(r"(bytes|u64)\[(\d+)\]", kind):
            self.shape, self.width, self.length = "array", {"bytes": 1, "u64": 8}[found[1]], int(found[2])
        elif found := re.fullmatch(r"vector of (u8|u32)", kind):
            self.shape, self.width = "vector", SCALARS[found[1]]
        elif found := re.fullmatch(r"table (\w+)", kind):
            self.shape, self.width, self.inner = "table", 4, found[1]
        elif found := re.fullmatch(r"tables (\w+)\[(\d+)\]", kind):
            self.shape, self.width, self.inner, self.length = "run", 4, found[1], int(found[2])
        elif found := re.fullmatch(r"vector of (\w+)", kind):
            self.shape, self.width, self.inner = "tables", 4, found[1]
        else:
            raise ValueError(f"{member} is of the kind {kind!r}, which is not known")


def read_types(text):
    """The slots of each type, and what else interface.txt has of it: {name: slots}, {name: facts}."""
    types, facts, name = {}, {}, None
    for line in text.split("\nRemote service", 1)[0].splitlines():
        if re.fullmatch(r"\w+", line):
            name = line
            types[name] = []
        elif found := re.fullmatch(r"    hash (0x\w+), native size \d+, (?:fixed size (\d+)|owns memory)", line):
            facts[name] = {"hash": int(found[1], 16), "size": found[2] and int(found[2]), "fixed": []}
        elif found := re.fullmatch(r" +\d+  (\w.*?) +(\w+) +at \d+(?:, fixed (\d+))?(?:, \w+ at \d+)?", line):
            types[name].append(Slot(found[2], found[1]))
            facts[name]["fixed"].append(found[3] and int(found[3]))
    return types, facts


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
        return "00" * slot.length if slot.width == 1 else [0] * slot.length
    empty = {inner.member: absent(types, inner) for inner in types.get(slot.inner, [])}
    return {"table": empty, "run": [empty] * (slot.length or 0)}.get(slot.shape)


class Reader:
    def __init__(self, types, message):
        self.types, self.message, self.size = types, message, len(message)

    def number(self, at, width):
        assert 0 <= at <= self.size - width, "a number outside of the message"
        return int.from_bytes(self.message[at : at + width], "little")

    def read(self, name):
        function = f"Tarn_sys_diag_{name}_unpack"
        if not 4 <= self.size <= LONGEST:
            log = "[VELTO]:Param invalid(%s, %d, %s)", ["nonNull", self.size, "nonNull"]
            raise Refused("length", f"message of {self.size} bytes", (function, *log))
        return self.table(self.number(0, 4), name, function)

    def table(self, table, name, function):
        last = self.size - 4
        if not 4 <= table <= last:
            log = "[VELTO]:Table offset(%u) is out of range(4 - %u)", [table, self.size]
            raise Refused(1, f"table at {table}", (function, *log))
        vtable = (table - self.number(table, 4)) % 2**32
        if not 4 <= vtable <= last:
            log = "[VELTO]:Vtable offset(%u) is out of range(4 - %u)", [table, last]
            raise Refused(2, f"vtable at {vtable}", (function, *log))
        length = self.number(vtable, 2)
        if length > self.size - vtable:
            log = "[VELTO]:Vtable Len(%u) is out of range(0 - %u)", [length, self.size - vtable]
            raise Refused(3, f"vtable of {length} bytes", (function, *log))
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
        places = range(at, at + slot.width * count, slot.width)
        if slot.inner:
            return [self.inner(place, slot) for place in places]
        if slot.width == 1:
            return self.message[at : at + count].hex()
        return [self.number(place, slot.width) for place in places]

    def inner(self, word, slot):
        table = word + self.number(word, 4)
        if table >= 2**32:
            raise Refused(6, f"{slot.member}: table at {table}")
        return self.table(table, slot.inner, f"Tarn_sys_diag_{slot.inner}_unpack_non_root")


def read(types, name, message):
    return Reader(types, message).read(name)


def elements_of(value, slot):
    """A count, and the bytes of what is no table."""
    if slot.width == 1:
        return struct.pack("<I", len(value) // 2) + bytes.fromhex(value)
    return struct.pack("<I", len(value)) + b"".join(element.to_bytes(slot.width, "little") for element in value)


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
