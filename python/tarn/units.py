"""The units of numbers, and what people write for one: "90%", "10s", "64KiB"."""

import re
from dataclasses import dataclass
from fractions import Fraction

NS, MINUTE, HOUR = 1, 60_000_000_000, 3_600_000_000_000
TIMES = {"ns": NS, "us": 1000, "ms": 1_000_000, "s": 1_000_000_000, "min": MINUTE, "m": MINUTE, "h": HOUR}
SIZES = {"B": 1, "KiB": 1 << 10, "MiB": 1 << 20, "GiB": 1 << 30, "TiB": 1 << 40}
SHARES = {"‰": 1, "%": 10}


@dataclass(frozen=True)
class Unit:
    suffix: str  # of the key
    scale: int  # how many of the key's unit one of the member's own is
    signs: dict  # what may stand behind a number, with its size
    own: int  # the size of the member's own unit
    expected: str

    def parse(self, text):
        """The number in the member's own unit; None where the text states no whole one."""
        found = re.fullmatch(r"(\d+(?:\.\d{1,6})?) *(\D+)", text)
        if not found or found[2] not in self.signs:
            return None
        number = Fraction(found[1]) * self.signs[found[2]] / self.own
        return int(number) if number.denominator == 1 else None


A_SIZE = "a size, such as 64MiB, or a number of "
A_TIME = "a time, such as 500ms or 2h, or a number of "
UNITS = {
    "permille": Unit("_permille", 1, SHARES, 1, "a share, such as 90% or 900"),
    "percent": Unit("_percent", 1, SHARES, 10, "a share, such as 90%"),
    "thousandths": Unit("_thousandths", 1, {}, 1, "a whole number"),
    "KiB": Unit("_bytes", 1 << 10, SIZES, 1 << 10, A_SIZE + "KiB"),
    "MiB": Unit("_bytes", 1 << 20, SIZES, 1 << 20, A_SIZE + "MiB"),
    "bytes": Unit("_bytes", 1, SIZES, 1, A_SIZE + "bytes"),
    "ns": Unit("_ns", 1, TIMES, TIMES["ns"], A_TIME + "ns"),
    "us": Unit("_us", 1, TIMES, TIMES["us"], A_TIME + "us"),
    "ms": Unit("_us", 1000, TIMES, TIMES["ms"], A_TIME + "ms"),
    "s": Unit("_us", 1_000_000, TIMES, TIMES["s"], A_TIME + "seconds"),
    "minutes": Unit("_min", 1, TIMES, MINUTE, A_TIME + "minutes"),
    "hours": Unit("_h", 1, TIMES, HOUR, A_TIME + "hours"),
}
