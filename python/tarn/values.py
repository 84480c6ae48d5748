"""Records as programs have them, of the wire's, and back: in the names of what is meant."""

import re
from collections.abc import Mapping
from datetime import datetime, timedelta, timezone
from functools import reduce
from operator import or_
from typing import TYPE_CHECKING, Any

from .errors import ERRNO_NAMES, BadRequest
from .meaning import did_you_mean
from .texts import escaped, in_gmt, record_of_time, text_of_time, time_of_record, time_of_text, unescaped
from .units import TIMES
from .velto import absent

SWITCHES = {"off": 0, "on": 1, "false": 0, "true": 1, "no": 0, "yes": 1}
STATES = {"R": "running", "S": "sleeping", "D": "waiting-for-device", "T": "stopped", "t": "traced", "Z": "zombie",
          "X": "dead", "I": "idle", "P": "parked"}
TIME_KINDS = {"local time": None, "time in GMT": timezone.utc}


class Record(dict[str, Any]):
    """Members by their keys; one whose key is no attribute of a dictionary is an attribute, too."""

    __slots__ = ()

    if not TYPE_CHECKING:  # the stubs say which attributes there are

        def __getattr__(self, key):
            try:
                return self[key]
            except KeyError:
                raise AttributeError(f"{key}: there is no such member" + did_you_mean(key, list(self))) from None

    def __repr__(self) -> str:
        return f"Record({', '.join(f'{key}={value!r}' for key, value in self.items())})"


class Event(Record):
    """Of the daemon's journal. `pid` is 0 where it is of no process, whose name `process` is."""

    number: int
    time: datetime
    kind: str
    pid: int
    process: str
    text: str


def named(meaning, wire):
    """A reply."""
    return Record((member.key, value_of(member, wire[member.wire])) for member in meaning.members if not member.unused)


def value_of(member, wire):
    shape = member.slot.shape
    if shape == "table":
        if member.kind in TIME_KINDS:
            return time_of_record(wire, TIME_KINDS[member.kind])
        return named(member.inside, wire)
    if member.inside:
        return [named(member.inside, element) for element in wire or []]
    if shape == "scalar":
        return value_of_number(member, wire)
    if wire is None:
        return [] if member.slot.width != 1 else None
    if isinstance(wire, list):
        return [value_of_number(member, number) for number in wire]
    if member.kind in TIME_KINDS:
        return time_of_text(wire)
    if member.kind == "binary":
        return wire
    return escaped(wire.rstrip(b"\0") if member.slot.length else wire)


def value_of_number(member, number):
    if member.unit:
        return number * member.unit.scale
    if member.kind == "switch":
        return bool(number) if number <= 1 else number
    if member.kind == "choice":
        return next((name for name, value in member.choices.items() if value == number), number)
    if member.kind == "sum of choices":
        return flags_of(member, number)
    if member.kind == "letter of a state":
        return STATES.get(chr(number), chr(number) if 0x20 < number < 0x7F else number)
    if member.kind == "errno value":
        return "ok" if number == 0 else ERRNO_NAMES.get(number, number)
    if member.kind == "signed number":
        return number - (1 << 32) if number >= 1 << 31 else number
    if member.kind == "seconds since 1970":
        return moment_of(number)
    return number


def flags_of(member, number):
    found = []
    for name, value in member.choices.items():
        if value and number & value == value:
            found.append(name)
            number &= ~value
    return found + [number] if number else found


def moment_of(seconds):
    last = 253_402_214_400  # the last day of 9999
    return datetime.fromtimestamp(seconds, timezone.utc) if 0 < seconds <= last else seconds or None


class Place:
    """A member that a value is stated for; `keyed` if under its key, whose unit the value has then."""

    def __init__(self, member, path, name):
        self.member, self.slot = member, member.slot
        self.path = path + member.name
        self.keyed = bool(member.unit) and name == member.key != member.word

    def refuse(self, found, expected):
        raise BadRequest(f"{self.path} ({self.member.wire}): found {found!r}, expected {expected}")


def wired(types, meaning, stated, path=""):
    """A request: the wire's record of members that are stated by their names, keys or wire names."""
    if not isinstance(stated, Mapping):
        raise BadRequest(f"{path or meaning.type}: found {stated!r}, expected the members of {meaning.type}")
    record = {member.wire: absent(types, member.slot) for member in meaning.members}
    known = set()
    for name, value in stated.items():
        member = meaning.find(name)
        if member is None:
            names = [member.name for member in meaning.members]
            raise BadRequest(f"{path}{name}: {meaning.type} has no such member" + did_you_mean(name, names))
        if member.wire in known:
            raise BadRequest(f"{path}{member.name} ({member.wire}) is stated twice")
        known.add(member.wire)
        if value is not None:
            record[member.wire] = wire_of(types, Place(member, path, name), value)
    missing = [one for member in meaning.members if member.wire not in known for one in missing_of(member, path)]
    if missing:
        raise BadRequest("; ".join(missing))
    return record


def missing_of(member, path):
    """What has no default and so has to be stated."""
    if not member.required:
        return []
    if member.kind == "record":
        return [one for inner in member.inside.members for one in missing_of(inner, f"{path}{member.name}.")]
    return [f"{path}{member.name} ({member.wire}) is missing: {member.sentence}"]


def wire_of(types, place, value):
    member, slot = place.member, place.slot
    if member.kind in TIME_KINDS:
        return wire_of_time(place, value)
    if slot.shape == "table":
        return wired(types, member.inside, value, place.path + ".")
    if slot.shape == "scalar":
        return number_of(place, value)
    if slot.width == 1:
        return bytes_of(place, value)
    if not isinstance(value, (list, tuple)):
        place.refuse(value, "a list")
    if slot.length is not None and len(value) > slot.length:
        place.refuse(value, f"at most {slot.length} elements")
    if slot.inner is None:
        numbers = [number_of(place, number, slot.width) for number in value]
        return numbers + [0] * ((slot.length or 0) - len(numbers))
    records = [wired(types, member.inside, element, f"{place.path}[{i}].") for i, element in enumerate(value)]
    return records + absent(types, slot)[len(records) :] if slot.shape == "run" else records


def wire_of_time(place, value):
    try:
        time = datetime.fromisoformat(value) if isinstance(value, str) else value
    except ValueError:
        time = None
    if not isinstance(time, datetime):
        place.refuse(value, "a datetime, or its ISO text")
    if place.member.kind == "time in GMT":
        time = in_gmt(time)
    elif time.tzinfo and place.slot.shape == "table":
        place.refuse(value, "a time without zone, as the clock of the daemon's machine shows it")
    if place.slot.shape == "table":
        return record_of_time(time)
    return bytes_of(place, text_of_time(time, place.slot.length))


def bytes_of(place, value):
    if isinstance(value, str):
        value = unescaped(value)
    if not isinstance(value, (bytes, bytearray)):
        place.refuse(value, "a text or bytes")
    if place.slot.shape == "string" and b"\0" in value:
        place.refuse(value, "a text without 0")
    length = place.slot.length
    if length is None:
        return bytes(value)
    if len(value) > length:
        place.refuse(value, f"at most {length} bytes")
    return bytes(value).ljust(length, b"\0")


def number_of(place, value, width=None):
    """In the member's own unit. The server says which of those it takes."""
    if isinstance(value, str):
        number = number_of_text(place, value.strip())
    elif isinstance(value, (list, tuple, set, frozenset)) and place.member.kind == "sum of choices":
        number = reduce(or_, (number_of(place, flag) for flag in value), 0)
    elif isinstance(value, timedelta) and place.member.unit and place.member.unit.signs is TIMES:
        number, rest = divmod(value // timedelta(microseconds=1) * 1000, place.member.unit.own)
        if rest:
            place.refuse(value, place.member.unit.expected)
    elif isinstance(value, datetime) and place.member.kind == "seconds since 1970":
        number = int(value.timestamp())
    elif isinstance(value, int) and (place.member.kind == "switch" or not isinstance(value, bool)):
        number = own_number(place, int(value))
    else:
        place.refuse(value, expected_of(place.member))
    width = width or place.slot.width
    if not 0 <= number < 1 << 8 * width:
        place.refuse(value, f"a number of {8 * width} bits")
    return number


def own_number(place, number):
    if place.keyed:
        whole, rest = divmod(number, place.member.unit.scale)
        return place.refuse(number, f"a multiple of {place.member.unit.scale}") if rest else whole
    negative = place.member.kind == "signed number" and -(1 << 31) <= number < 0
    return number + (1 << 32) if negative else number


def number_of_text(place, text):
    member = place.member
    if re.fullmatch(r"0[xX][0-9a-fA-F]+|-?[0-9]+", text):
        return own_number(place, int(text, 16 if text[:2] in ("0x", "0X") else 10))
    known = {"switch": SWITCHES, "choice": member.choices, "errno value": {"ok": 0},
             "letter of a state": {word: ord(letter) for letter, word in STATES.items()}}.get(member.kind, {})
    if member.kind == "errno value":
        known |= {name: number for number, name in ERRNO_NAMES.items()}
    if text in known:
        return known[text]
    if member.kind == "letter of a state" and len(text) == 1:
        return ord(text)
    if member.kind == "sum of choices" and text:
        words = [] if text == "none" else re.split(r"[+,]", text)
        if all(word in member.choices for word in words):
            return reduce(or_, (member.choices[word] for word in words), 0)
    number = member.unit.parse(text) if member.unit else None
    return place.refuse(text, expected_of(member)) if number is None else number


def expected_of(member):
    if member.kind == "switch":
        return "True or False"
    if member.choices:
        one = "one or several of" if member.kind == "sum of choices" else "one of"
        return f"{one} {', '.join(member.choices)}"
    return member.unit.expected if member.unit else "a whole number"
