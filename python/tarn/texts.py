"""Texts and times, which the wire has as bytes and as records."""

import re
from datetime import datetime, timezone

CONTROL = re.compile("[\0-\x08\x0b\x0c\x0e-\x1f\x7f-\x9f]")
ESCAPED = re.compile(rb"\\x([0-9a-fA-F]{2})")
PARTS = "usYear", "ucMonth", "ucDay", "ucHour", "ucMinute", "ucSecond"


def escaped(data):
    """A byte that is no text is \\xNN."""
    text = data.replace(b"\\x", b"\\x5cx").decode(errors="backslashreplace")
    return CONTROL.sub(lambda control: "".join(f"\\x{byte:02x}" for byte in control[0].encode()), text)


def unescaped(text):
    return ESCAPED.sub(lambda digits: bytes.fromhex(digits[1].decode()), text.encode())


def time_of_text(data):
    """None for no time; what is no time stays a text. It has a zone if the text has one."""
    text = escaped(data.rstrip(b"\0"))
    if not text:
        return None
    try:
        if re.fullmatch(r"\d{14}", text):
            return datetime.strptime(text, "%Y%m%d%H%M%S")
        return datetime.fromisoformat(re.sub(r" (?=[+-]\d\d:?\d\d$)", "", text))
    except ValueError:
        return text


def text_of_time(time, room):
    """The longest form that there is room for."""
    milliseconds = time.microsecond // 1000
    digits = time.strftime("%Y-%m-%d %H:%M:%S") + (f".{milliseconds:03}" if milliseconds else "")
    zoned = digits + time.strftime(" %z") if time.tzinfo else digits
    short = time.strftime("%Y%m%d%H%M%S")
    return next(form for form in (zoned, digits, short) if room is None or len(form) <= room).encode()


def time_of_record(record, zone):
    """None for no time, and the record itself for what is none."""
    if not any(record.values()):
        return None
    try:
        return datetime(*(record[part] for part in PARTS), record["uiMillisecond"] * 1000, zone)
    except (ValueError, OverflowError):
        return record


def record_of_time(time):
    parts = zip(PARTS, time.timetuple())
    return {**dict(parts), "ucWeek": time.isoweekday() % 7, "uiMillisecond": time.microsecond // 1000}


def in_gmt(time):
    """A time without a zone is one already."""
    return time.astimezone(timezone.utc) if time.tzinfo else time.replace(tzinfo=timezone.utc)
