"""The examples of a document: behind a line "Example: ...", lines of a position, bytes and what they are."""

import re
from pathlib import Path

LINE = re.compile(r" {4,}(\d+)  (?:(\.\.\.)|((?:[0-9a-f]{2} )*[0-9a-f]{2}))(?:  .*)?")


class Example:
    """`title` is what stands behind "Example:"; `whole` is false where bytes are left out at the end."""

    def __init__(self, title):
        self.title, self.bytes, self.whole = title, b"", True

    def add(self, line):
        found = LINE.fullmatch(line)
        if not found or int(found[1]) != len(self.bytes) or not self.whole:
            raise ValueError(f"example {self.title!r}: found {line!r}, expected bytes at {len(self.bytes)}")
        self.whole = found[2] is None
        self.bytes += bytes.fromhex(found[3] or "")


def read_examples(path):
    examples, reading = [], False
    for line in Path(path).read_text(encoding="utf-8").splitlines():
        if line.startswith("Example: "):
            examples.append(Example(line.removeprefix("Example: ")))
            reading = True
        elif line.startswith("    ") and reading:
            examples[-1].add(line)
        elif line:
            reading = False
    return examples
