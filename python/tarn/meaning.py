"""What methods and members mean, as a server describes itself: docs/protocol.md, "Describe"."""

import difflib
from dataclasses import dataclass
from typing import Any

from .errors import BadRequest, Error
from .units import UNITS
from .velto import Slot, type_hash

SHAPES = {"scalar": "scalar", "string": "string", "bytes": "array", "array64": "array", "byte-vector": "vector",
          "vector32": "vector", "table": "table", "run": "run", "table-vector": "tables"}


class Member:
    """`key` is what a reply has it under: its name with "_" for "-" and the unit behind it."""

    def __init__(self, slot, inside, described):
        self.slot, self.inside = slot, inside
        self.wire, self.name, self.kind = (described[key] for key in ("wire", "name", "kind"))
        self.sentence = described["sentence"]
        self.choices = {choice["name"]: choice["value"] for choice in described.get("choices", [])}
        self.open = described.get("open", False)
        self.word = self.name.replace("-", "_")
        self.unit = UNITS.get(self.kind)
        self.key = self.word + (self.unit.suffix if self.unit else "")
        self.unused = self.kind == "unused"
        self.required = "zero" not in described and "matters" not in described and not self.unused

    def is_called(self, name):
        return name in (self.wire, self.name, self.word, self.key)


@dataclass(frozen=True)
class RecordMeaning:
    type: str
    members: list

    def find(self, name):
        return next((member for member in self.members if member.is_called(name)), None)


@dataclass(frozen=True)
class Method:
    service: str
    name: str
    group: str  # of the policy
    long: bool  # it may take longer than a client waits by default
    sentence: str
    example: str
    request: RecordMeaning
    reply: RecordMeaning | None


class Interface:
    """Of one server: its `types`, and its `methods` in their order."""

    def __init__(self, described: Any):
        try:
            self.types = read_types(described["types"])
            records = read_records(described["records"], self.types)
            self.methods = [read_method(service["name"], method, records)
                            for service in described["services"] for method in service["methods"]]
        except (KeyError, IndexError, TypeError, ValueError, AttributeError) as error:
            raise Error(f"the server's description of itself is not understood: {error!r}") from error

    def find(self, name: str) -> Method:
        """By name, or by Service.Name."""
        for method in self.methods:
            if name in (method.name, f"{method.service}.{method.name}"):
                return method
        raise BadRequest(f"{name}: the server has no such method" + did_you_mean(name, [m.name for m in self.methods]))


def read_types(described):
    types = {}
    for type in described:
        slots = [Slot(slot["member"], SHAPES[slot["kind"]], slot["width"] or 4, slot["length"] or None, slot["type"])
                 for slot in type["slots"]]
        unknown = [slot.inner for slot in slots if slot.inner and slot.inner not in types]
        if unknown or type["hash"] != type_hash(type["name"]):
            raise ValueError(f"type {type['name']} with {unknown} in it and the hash {type['hash']:#x}")
        types[type["name"]] = slots
    return types


def read_records(described, types):
    records = []
    for record in described:
        parts = zip(types[record["type"]], record["inside"], record["members"], strict=True)
        members = [Member(slot, None if inside is None else records[inside], member) for slot, inside, member in parts]
        records.append(RecordMeaning(record["type"], members))
    return records


def read_method(service, method, records):
    reply = None if method["response"] is None else records[method["response"]]
    return Method(service, *(method[key] for key in ("name", "group", "long", "sentence", "example")),
                  records[method["request"]], reply)


def did_you_mean(wanted, names):
    closest = difflib.get_close_matches(wanted, names, 3)
    return f"; did you mean {' or '.join(closest)}?" if closest else ""
