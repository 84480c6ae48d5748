"""Values are as docs/python.md has them, and what tarnctl prints for programs is the same."""

import json
import os
import subprocess
from datetime import datetime, timedelta, timezone
from pathlib import Path

import pytest
import tarn
from interface_text import slot_of
from tarn import velto
from tarn.meaning import Member, RecordMeaning
from tarn.texts import escaped, unescaped
from tarn.values import TIME_KINDS, named, wired

GOLDEN = Path(__file__).resolve().parents[1] / "golden"
SCALAR = "u32"
CHOICES = [{"name": name, "value": value, "sentence": ""} for name, value in (("pass", 1), ("drop", 2), ("limit", 4))]


def member(kind, slot=SCALAR, inside=None, **more):
    described = {"wire": "uiValue1", "name": "the-value", "kind": kind, "sentence": "What it is.", **more}
    return Member(slot_of("uiValue1", slot), inside, described)


def read(one, wire):
    (value,) = named(RecordMeaning("Type", [one]), {"uiValue1": wire}).values()
    return value


def write(one, value, name="the_value", types={}):
    return wired(types, RecordMeaning("Type", [one]), {name: value})["uiValue1"]


@pytest.mark.parametrize("kind, key, wire, value", [
    ("permille", "the_value_permille", 125, 125),
    ("KiB", "the_value_bytes", 3, 3072),
    ("MiB", "the_value_bytes", 3, 3 << 20),
    ("ms", "the_value_us", 7, 7000),
    ("s", "the_value_us", 2**32 - 1, (2**32 - 1) * 1_000_000),
    ("hours", "the_value_h", 5, 5),
    ("count", "the_value", 5, 5),
    ("address", "the_value", 0x7F00, 0x7F00),
    ("signed number", "the_value", 2**32 - 60, -60),
    ("switch", "the_value", 1, True),
    ("errno value", "the_value", 0, "ok"),
    ("errno value", "the_value", 95, "EOPNOTSUPP"),
    ("errno value", "the_value", 35, "EDEADLK"),
    ("letter of a state", "the_value", ord("S"), "sleeping"),
    ("seconds since 1970", "the_value", 0, None),
    ("seconds since 1970", "the_value", 86400, datetime(1970, 1, 2, tzinfo=timezone.utc)),
    ("a kind of the future", "the_value", 5, 5),
])
def test_numbers_have_the_units_of_their_keys(kind, key, wire, value):
    one = member(kind)
    assert named(RecordMeaning("Type", [one]), {"uiValue1": wire}) == {key: value}
    if value is not None:
        assert write(one, value, key) == wire


def test_choices_are_words_and_others_numbers():
    choice, flags = member("choice", choices=CHOICES), member("sum of choices", choices=CHOICES)
    assert (read(choice, 2), read(choice, 3)) == ("drop", 3)
    assert (read(flags, 5), read(flags, 10), read(flags, 0)) == (["pass", "limit"], ["drop", 8], [])
    assert (write(choice, "drop"), write(choice, 3), write(choice, "3")) == (2, 3, 3)
    assert (write(flags, ["pass", "limit"]), write(flags, "pass+limit"), write(flags, {"drop", 8})) == (5, 5, 10)
    assert (write(flags, "none"), write(flags, []), write(flags, ["pass", "pass"])) == (0, 0, 1)


@pytest.mark.parametrize("kind, value, wire", [
    ("permille", "12.5%", 125), ("permille", 900, 900), ("permille", "900", 900), ("percent", "90%", 90),
    ("KiB", "64MiB", 65536), ("KiB", 64, 64), ("bytes", "0x10", 16), ("ms", "1.5s", 1500), ("ms", "2min", 120000),
    ("ms", timedelta(seconds=3), 3000), ("hours", timedelta(days=1), 24), ("us", "10ms", 10000),
    ("switch", "on", 1), ("switch", False, 0), ("switch", "no", 0), ("letter of a state", "traced", ord("t")),
    ("errno value", "ENOENT", 2), ("signed number", "-60", 2**32 - 60),
])
def test_numbers_are_stated_in_their_own_unit_or_with_one(kind, value, wire):
    assert write(member(kind), value) == wire


@pytest.mark.parametrize("kind, value, expected", [
    ("permille", "12.55%", "found '12.55%', expected a share, such as 90% or 900"),
    ("permille", "10s", "found '10s', expected a share, such as 90% or 900"),
    ("ms", timedelta(microseconds=1), "expected a time, such as 500ms or 2h, or a number of ms"),
    ("count", -1, "found -1, expected a number of 32 bits"),
    ("count", 2**32, "found 4294967296, expected a number of 32 bits"),
    ("count", True, "found True, expected a whole number"),
    ("count", 1.5, "found 1.5, expected a whole number"),
    ("switch", "maybe", "found 'maybe', expected True or False"),
    ("choice", "dorp", "found 'dorp', expected one of pass, drop, limit"),
    ("sum of choices", "pass+dorp", "found 'pass+dorp', expected one or several of pass, drop, limit"),
])
def test_values_that_do_not_fit_are_refused_by_name(kind, value, expected):
    choices = CHOICES if "choice" in kind else []
    with pytest.raises(tarn.BadRequest) as caught:
        write(member(kind, choices=choices), value)
    assert str(caught.value).startswith("the-value (uiValue1): ") and str(caught.value).endswith(expected)


def test_a_key_takes_what_it_shows():
    assert write(member("KiB"), 65536, "the_value_bytes") == 64
    with pytest.raises(tarn.BadRequest, match="found 65537, expected a multiple of 1024"):
        write(member("KiB"), 65537, "the_value_bytes")


def test_texts_keep_every_byte():
    data = b"a\xff\\x41\x1b\n\xc2\x85\xc3\xa9\\"
    assert escaped(data) == "a\\xff\\x5cx41\\x1b\n\\xc2\\x85\u00e9\\"
    assert unescaped(escaped(data)) == data
    array, string, binary = member("text", "bytes[8]"), member("text", "string"), member("binary", "bytes[4]")
    assert (read(array, b"abc\0\0\0\0\0"), read(string, b"abc"), read(string, None)) == ("abc", "abc", None)
    assert (read(binary, b"a\0b\0"), write(binary, b"a")) == (b"a\0b\0", b"a\0\0\0")
    assert (write(array, "abc"), write(string, "abc"), write(string, None)) == (b"abc\0\0\0\0\0", b"abc", None)
    with pytest.raises(tarn.BadRequest, match="expected at most 8 bytes"):
        write(array, "nine bytes")
    with pytest.raises(tarn.BadRequest, match="expected a text without 0"):
        write(string, "a\0b")


def test_times_of_texts_have_the_zone_that_the_text_has():
    zoned = datetime(2026, 2, 3, 4, 5, 6, 7000, timezone(timedelta(hours=1)))
    one = member("local time", "bytes[32]")
    assert read(one, b"2026-02-03 04:05:06.007 +0100\0\0\0") == zoned
    assert read(one, b"20260203040506".ljust(32, b"\0")) == datetime(2026, 2, 3, 4, 5, 6)
    assert (read(one, bytes(32)), read(one, b"soon".ljust(32, b"\0"))) == (None, "soon")
    assert write(one, zoned).rstrip(b"\0") == b"2026-02-03 04:05:06.007 +0100"
    assert write(member("local time", "bytes[20]"), "2026-02-03T04:05:06").rstrip(b"\0") == b"2026-02-03 04:05:06"
    assert write(member("local time", "bytes[14]"), datetime(2026, 2, 3, 4, 5, 6)) == b"20260203040506"


SYSTIME = {"Systime": [slot_of(*slot) for slot in (
    ("usYear", "u16"), ("ucMonth", "u8"), ("ucDay", "u8"), ("ucHour", "u8"), ("ucMinute", "u8"), ("ucSecond", "u8"),
    ("ucWeek", "u8"), ("uiMillisecond", "u32"))]}
FIELDS = {"usYear": 2026, "ucMonth": 2, "ucDay": 3, "ucHour": 4, "ucMinute": 5, "ucSecond": 6, "ucWeek": 2,
          "uiMillisecond": 7}


def test_times_of_records_are_gmt_or_of_the_daemons_clock():
    local, gmt = (member(kind, "table Systime") for kind in ("local time", "time in GMT"))
    naive = datetime(2026, 2, 3, 4, 5, 6, 7000)
    aware = naive.replace(tzinfo=timezone.utc)
    assert (read(local, FIELDS), read(gmt, FIELDS)) == (naive, aware)
    assert read(local, dict.fromkeys(FIELDS, 0)) is None
    assert read(local, FIELDS | {"ucMonth": 13}) == FIELDS | {"ucMonth": 13}
    assert write(local, naive, types=SYSTIME) == write(gmt, aware, types=SYSTIME) == FIELDS
    east = aware.astimezone(timezone(timedelta(hours=2)))
    assert write(gmt, east, types=SYSTIME) == FIELDS
    with pytest.raises(tarn.BadRequest, match="expected a time without zone"):
        write(local, east, types=SYSTIME)


def test_lists_are_filled_up_and_never_none():
    numbers = member("address", "u64[4]")
    assert write(numbers, [1, "0x2"]) == [1, 2, 0, 0]
    assert (read(numbers, [1, 2, 0, 0]), read(member("count", "vector of u32"), None)) == ([1, 2, 0, 0], [])
    with pytest.raises(tarn.BadRequest, match="expected at most 4 elements"):
        write(numbers, range(5) and [0] * 5)
    inside = RecordMeaning("Inner", [member("count")])
    records = member("records", "vector of Inner", inside)
    assert read(records, [{"uiValue1": 3}]) == [{"the_value": 3}]
    assert write(records, [{"the-value": 3}]) == [{"uiValue1": 3}]
    with pytest.raises(tarn.BadRequest, match=r"the-value\[0\]\.the_valeu: Inner has no such member; did you mean"):
        write(records, [{"the_valeu": 3}])


def test_members_are_stated_once_and_all_that_have_no_default():
    meaning = RecordMeaning("Type", [member("count")])
    for names in ("the_value", "uiValue1"), ("the-value", "the_value"):
        with pytest.raises(tarn.BadRequest, match=r"the-value \(uiValue1\) is stated twice"):
            wired({}, meaning, dict.fromkeys(names, 1))
    with pytest.raises(tarn.BadRequest, match=r"the-value \(uiValue1\) is missing: What it is\."):
        wired({}, meaning, {})
    assert wired({}, RecordMeaning("Type", [member("count", zero="all")]), {}) == {"uiValue1": 0}


def test_records_are_dictionaries_with_attributes():
    record = tarn.Record(name="a", items=[1])
    assert (record.name, record["items"], json.dumps(record)) == ("a", [1], '{"name": "a", "items": [1]}')
    with pytest.raises(AttributeError, match="nmae: there is no such member; did you mean name?"):
        record.nmae


def printed_value(member, value):
    """What --json=named has for it, which knows no times and no numbers beyond 2^53."""
    if isinstance(value, list):
        return [printed_value(member, one) for one in value]
    if isinstance(value, dict):
        return value if member.kind in TIME_KINDS else printed_record(member.inside, value)
    if isinstance(value, datetime):
        zone = "Z" if member.kind == "time in GMT" else "+00:00"
        return value.replace(tzinfo=None).isoformat(timespec="milliseconds" if value.microsecond else "seconds") + zone
    if member.kind == "address":
        return hex(value)
    return str(value) if isinstance(value, int) and value > 2**53 else value


def printed_record(meaning, record):
    return {one.key: printed_value(one, record[one.key]) for one in meaning.members if not one.unused}


@pytest.fixture(scope="module")
def known(served):
    with tarn.connect(run_dir=served[1]) as daemon:
        return daemon.interface


def meanings_of(interface):
    """Of the types that mean the same wherever they are used."""
    meanings = {}

    def add(meaning):
        meanings.setdefault(meaning.type, {})[id(meaning)] = meaning
        for member in meaning.members:
            if member.inside:
                add(member.inside)

    for method in interface.methods:
        for meaning in filter(None, (method.request, method.reply)):
            add(meaning)
    return {type: next(iter(found.values())) for type, found in meanings.items() if len(found) == 1}


def test_golden_messages_are_read_as_tarnctl_prints_them(known, tmp_path):
    vectors = (json.loads(line) for line in (GOLDEN / "accepted.jsonl").read_text(encoding="utf-8").splitlines())
    last = {vector["type"]: bytes.fromhex(vector["wire"]) for vector in vectors if vector["form"] == "regular"}
    meanings = meanings_of(known)
    compared = meanings.keys() & last.keys()
    assert len(compared) > 50
    for type in compared:
        meaning = meanings[type]
        (tmp_path / "message").write_bytes(last[type])
        command = [os.environ["TARNCTL"], "decode", type, tmp_path / "message", "--json=named"]
        printed = subprocess.run(command, env={"TZ": "UTC"}, capture_output=True, check=True).stdout
        record = named(meaning, velto.read(known.types, type, last[type]))
        assert printed_record(meaning, record) == json.loads(printed), type
