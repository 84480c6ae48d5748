"""The types of tests/golden/interface.txt, and its records of the golden messages."""

import re

from tarn.velto import Slot

SCALARS = {"u8": 1, "u16": 2, "u32": 4, "u64": 8}


def slot_of(member, kind):
    if kind in SCALARS:
        return Slot(member, "scalar", SCALARS[kind])
    if kind == "string":
        return Slot(member, "string", 1)
    if found := re.fullmatch(r"(bytes|u64)\[(\d+)\]", kind):
        return Slot(member, "array", {"bytes": 1, "u64": 8}[found[1]], int(found[2]))
    if found := re.fullmatch(r"vector of (u8|u32)", kind):
        return Slot(member, "vector", SCALARS[found[1]])
    if found := re.fullmatch(r"table (\w+)", kind):
        return Slot(member, "table", inner=found[1])
    if found := re.fullmatch(r"tables (\w+)\[(\d+)\]", kind):
        return Slot(member, "run", inner=found[1], length=int(found[2]))
    if found := re.fullmatch(r"vector of (\w+)", kind):
        return Slot(member, "tables", inner=found[1])
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
            types[name].append(slot_of(found[2], found[1]))
            facts[name]["fixed"].append(found[3] and int(found[3]))
    return types, facts


def record_of(types, name, golden):
    """The record that the vectors have in JSON, where bytes are hexadecimal digits."""

    def value_of(slot, value):
        if value is None or slot.shape == "scalar":
            return value
        if slot.shape == "table":
            return record_of(types, slot.inner, value)
        if slot.inner:
            return [record_of(types, slot.inner, element) for element in value]
        return bytes.fromhex(value) if slot.width == 1 else value

    return {slot.member: value_of(slot, golden[slot.member]) for slot in types[name]}
