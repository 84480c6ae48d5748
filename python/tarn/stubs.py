"""Writes methods.pyi: the types of the methods of a running daemon.

    python3 -m tarn.stubs [RUN_DIR] >methods.pyi
"""

import keyword
import sys
import textwrap
from collections import Counter

from . import connect
from .units import TIMES
from .values import TIME_KINDS

HEAD = '''"""Written by python3 -m tarn.stubs from what the daemon says of itself."""

from collections.abc import Iterable, Mapping, Sequence
from datetime import datetime, timedelta
from typing import Any, Literal, overload

from .values import Record
'''
COLUMNS = 120
STATE = "letter of a state"


def literal(member):
    return f"Literal[{', '.join(repr(name).replace(chr(39), chr(34)) for name in member.choices)}]"


def type_of_number(member):
    if member.kind == "choice":
        return f"{literal(member)} | int"
    kinds = {"switch": "bool", "sum of choices": f"list[{literal(member)} | int]", STATE: "str | int",
             "errno value": "str | int", "seconds since 1970": "datetime | int | None"}
    return kinds.get(member.kind, "int")


def type_in_reply(member, names):
    shape = member.slot.shape
    if shape == "table":
        return "datetime | Record | None" if member.kind in TIME_KINDS else names[id(member.inside)]
    if member.inside:
        return f"list[{names[id(member.inside)]}]"
    if shape == "scalar":
        return type_of_number(member)
    if member.slot.width != 1:
        return f"list[{type_of_number(member)}]"
    if member.kind in TIME_KINDS:
        return "datetime | str | None"
    return ("bytes" if member.kind == "binary" else "str") + ("" if member.slot.length else " | None")


def type_in_request(member):
    shape = member.slot.shape
    if member.kind in TIME_KINDS:
        return "datetime | str"
    if shape == "table":
        return "Mapping[str, Any]"
    if member.inside:
        return "Sequence[Mapping[str, Any]]"
    if member.kind == "word":
        return literal(member)
    if shape != "scalar":
        return "str | bytes" if member.slot.width == 1 else "Sequence[int | str]"
    if member.unit:
        return "int | str | timedelta" if member.unit.signs is TIMES else "int | str"
    kinds = {"switch": "bool | int | str", "choice": f"{literal(member)} | int", STATE: "int | str",
             "sum of choices": f"Iterable[{literal(member)} | int] | int | str", "errno value": "int | str",
             "seconds since 1970": "datetime | int"}
    return kinds.get(member.kind, "int")


def records_of(meaning):
    """With what is inside of it, which stands before it."""
    inside = [member.inside for member in meaning.members if member.inside and member.kind not in TIME_KINDS]
    return [record for one in inside for record in records_of(one)] + [meaning]


def folded(text, indent):
    return textwrap.fill(text, COLUMNS, initial_indent=indent, subsequent_indent=indent + "    ",
                         break_long_words=False, break_on_hyphens=False)


def class_of(meaning, names):
    lines = [f"class {names[id(meaning)]}(Record):"]
    for member in meaning.members:
        if not member.unused and not keyword.iskeyword(member.key) and not hasattr(dict, member.key):
            lines.append(folded(f"{member.key}: {type_in_reply(member, names)}", "    "))
    return "\n".join(lines if len(lines) > 1 else [lines[0] + " ..."])


def overload_of(method, names):
    lines = ["    @overload", "    def call(", "        self,", f'        method: Literal["{method.name}"],',
             "        /,", "        *,", "        deadline: float | None = ...,"]
    for member in method.request.members:
        if not member.unused and not keyword.iskeyword(member.word):
            default = "" if member.required and member.kind != "record" else " = ..."
            lines.append(folded(f"{member.word}: {type_in_request(member)}{default},", "        "))
    lines.append(f"    ) -> {names[id(method.reply)] if method.reply else 'None'}:")
    lines.append(textwrap.fill(f'"""{method.sentence}', COLUMNS, initial_indent=" " * 8, subsequent_indent=" " * 8))
    return "\n".join(lines + ['        """'])


def stub_of(interface):
    records = {id(record): record for method in interface.methods if method.reply
               for record in records_of(method.reply)}
    names, of_type = {}, Counter()
    for number, record in records.items():
        of_type[record.type] += 1
        names[number] = record.type + (f"_{of_type[record.type]}" if of_type[record.type] > 1 else "")
    classes = [class_of(record, names) for record in records.values()]
    overloads = [overload_of(method, names) for method in interface.methods]
    return "\n\n".join([HEAD, "\n\n".join(classes), "class Methods:\n" + "\n".join(overloads)]) + "\n"


if __name__ == "__main__":
    with connect(run_dir=sys.argv[1] if len(sys.argv) > 1 else None) as daemon:
        print(stub_of(daemon.interface), end="")
