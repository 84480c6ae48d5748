"""The reader and the writers of docs/format.md agree with the golden messages, and so do the document's examples."""

import json
import re
import struct
import unittest
from pathlib import Path
from unittest import mock

import documents
from interface_text import read_types, record_of, slot_of
from tarn import velto

ROOT = Path(__file__).resolve().parents[2]
GOLDEN = ROOT / "tests" / "golden"
TYPES, FACTS = read_types((GOLDEN / "interface.txt").read_text(encoding="utf-8"))


def vectors(file):
    return [json.loads(line) for line in (GOLDEN / file).read_text(encoding="utf-8").splitlines()]


ACCEPTED, REJECTED = vectors("accepted.jsonl"), vectors("rejected.jsonl")


def wire(vector):
    return bytes.fromhex(vector["wire"])


def record(vector):
    return record_of(TYPES, vector["type"], vector["record"])


def refusal(vector):
    """How a message is refused; None if it is not."""
    try:
        velto.read(TYPES, vector["type"], wire(vector))
    except velto.Refused as refused:
        return refused
    return None


LOGGED = {
    "length": "[VELTO]:Param invalid(%s, %d, %s)",
    1: "[VELTO]:Table offset(%u) is out of range(4 - %u)",
    2: "[VELTO]:Vtable offset(%u) is out of range(4 - %u)",
    3: "[VELTO]:Vtable Len(%u) is out of range(0 - %u)",
}


def log_of(refused):
    """What the library logs of a refusal: function, format, what is put in; None where it says nothing."""
    if refused.rule not in LOGGED:
        return None
    numbers = ["nonNull", *refused.numbers, "nonNull"] if refused.rule == "length" else list(refused.numbers)
    function = f"Tarn_sys_diag_{refused.type}_unpack" + "_non_root" * refused.inside
    return function, LOGGED[refused.rule], numbers


def expected_log(vector):
    """The vectors call the type inside PARENT.element."""
    inner = {slot.inner for slot in TYPES[vector["type"]] if slot.shape == "tables"}
    for record in vector["log"]:
        function = record["function"]
        if ".element" in function:
            function = f"Tarn_sys_diag_{inner.pop()}_unpack_non_root"
        return function, record["format"], record["args"]
    return None


class Vectors(unittest.TestCase):
    def each(self, all_of, least, check):
        """Calls check(vector) for each, of which there are at least so many, and says which fail."""
        self.assertGreaterEqual(len(all_of), least)
        for vector in all_of:
            with self.subTest(type=vector["type"], wire=vector["wire"]):
                check(vector)

    def test_are_read(self):
        def check(vector):
            self.assertEqual(velto.read(TYPES, vector["type"], wire(vector)), record(vector))

        self.each(ACCEPTED, 1000, check)

    def test_are_written_in_the_regular_form(self):
        def check(vector):
            written = velto.write_regular(TYPES, vector["type"], record(vector))
            self.assertEqual(written.hex(), vector["wire"])

        self.each([vector for vector in ACCEPTED if vector["form"] == "regular"], 500, check)

    def test_are_written_in_the_fixed_form(self):
        def check(vector):
            expected = bytearray(b"\xaa" * vector["size"])
            for start, end in vector["written"]:
                expected[start:end] = wire(vector)[start:end]
            written = velto.write_fixed(TYPES, vector["type"], record(vector), gap=0xAA)
            self.assertEqual(written.hex(), expected.hex())

        self.each([vector for vector in ACCEPTED if vector["form"] == "fixed"], 400, check)

    def test_are_refused(self):
        rules = set()

        def check(vector):
            refused = refusal(vector)
            self.assertIsNotNone(refused)
            rules.add(refused.rule)
            no_room = refused.rule == 1 and refused.inside
            allowed = [log_of(refused), None] if no_room else [log_of(refused)]
            self.assertIn(expected_log(vector), allowed, refused)

        self.each(REJECTED, 700, check)
        self.assertEqual(rules, {1, 2, 3, 5, 7, 8, 9})

    def test_are_refused_by_the_rules_that_no_vector_is_for(self):
        for message, rule in (b"\x04\0\0", "length"), (self.with_word(0xFFFFFFFF), 6):
            with self.assertRaises(velto.Refused) as caught:
                velto.read(TYPES, "SetGmtInput", message)
            self.assertEqual(caught.exception.rule, rule)
        self.assertTrue(velto.read(TYPES, "SetGmtInput", self.with_word(4)))

    def test_are_refused_where_a_short_one_makes_a_long_record(self):
        types = {"Empty": [], "Many": [slot_of("pstA", "vector of Empty")]}
        for elements in 99, 100:  # all of which are the table at the end
            words = b"".join(struct.pack("<I", 4 * left) for left in range(elements, 0, -1))
            head = struct.pack("<IHHHIII", 10, 6, 8, 4, 6, 4, elements)
            message = head + words + struct.pack("<I", len(head + words) - 4)
            with mock.patch.object(velto, "MOST_TABLES", 100):
                if elements < 100:
                    self.assertEqual(len(velto.read(types, "Many", message)["pstA"]), elements)
                    continue
                with self.assertRaises(velto.Refused) as caught:
                    velto.read(types, "Many", message)
                self.assertEqual(caught.exception.rule, "size")

    def with_word(self, word):
        """A SetGmtInput with that offset word, behind which its record is."""
        record = {slot.member: velto.absent(TYPES, slot) for slot in TYPES["SetGmtInput"]}
        message = bytearray(velto.write_fixed(TYPES, "SetGmtInput", record))
        message[8:12] = word.to_bytes(4, "little")
        return bytes(message)


class Types(unittest.TestCase):
    def test_have_the_hashes_of_their_names(self):
        for name, facts in FACTS.items():
            self.assertEqual(velto.type_hash(name), facts["hash"], name)

    def test_have_the_size_and_the_offsets_of_their_fixed_form(self):
        having = [name for name, facts in FACTS.items() if facts["size"]]
        self.assertGreater(len(having), 100)
        for name in having:
            record = {slot.member: velto.absent(TYPES, slot) for slot in TYPES[name]}
            message = velto.write_fixed(TYPES, name, record)
            self.assertEqual(len(message), FACTS[name]["size"], name)
            vtable = 4 - int.from_bytes(message[4:8], "little", signed=True)
            offsets = struct.unpack_from(f"<{len(TYPES[name])}H", message, vtable + 4)
            self.assertEqual(list(offsets), FACTS[name]["fixed"], name)
            self.assertEqual(velto.read(TYPES, name, message), record, name)

    def test_without_a_string_or_a_vector_are_those_with_a_fixed_form(self):
        def owns(name):
            return any(slot.shape in ("string", "vector", "tables") or slot.inner and owns(slot.inner)
                       for slot in TYPES[name])

        for name, facts in FACTS.items():
            self.assertEqual(owns(name), facts["size"] is None, name)


class Versions(unittest.TestCase):
    OLDER = {"Inner": [("ucA", "u8")], "Outer": [("uiA", "u32"), ("stB", "table Inner")]}
    NEWER = {"Inner": OLDER["Inner"] + [("usB", "u16")], "Outer": OLDER["Outer"] + [("pcC", "string")]}

    def setUp(self):
        self.newer, self.older = ({name: [slot_of(*slot) for slot in slots] for name, slots in types.items()}
                                  for types in (self.NEWER, self.OLDER))

    def test_a_reader_passes_over_slots_that_it_does_not_know(self):
        message = velto.write_regular(self.newer, "Outer", {"uiA": 1, "stB": {"ucA": 2, "usB": 3}, "pcC": b"abc"})
        self.assertEqual(velto.read(self.older, "Outer", message), {"uiA": 1, "stB": {"ucA": 2}})

    def test_a_reader_takes_slots_that_the_writer_does_not_know_as_absent(self):
        message = velto.write_regular(self.older, "Outer", {"uiA": 1, "stB": {"ucA": 2}})
        self.assertEqual(velto.read(self.newer, "Outer", message), {"uiA": 1, "stB": {"ucA": 2, "usB": 0}, "pcC": None})


class Examples(unittest.TestCase):
    TITLE = re.compile(r"`(?P<type>\w+)`, (?:(?P<form>regular|fixed), (?:`(?P<record>{.*})`|line (?P<line>\d+) of .*)"
                       r"|refused by rule (?P<rule>\d).*)")

    def test_are_golden_messages(self):
        examples = documents.read_examples(ROOT / "docs" / "format.md")
        self.assertGreater(len(examples), 20)
        for example in examples:
            with self.subTest(example=example.title):
                title = self.TITLE.fullmatch(example.title)
                self.assertIsNotNone(title)
                self.check(example, **title.groupdict())

    def check(self, example, type, form, record, line, rule):
        def shown(vector):
            message = wire(vector)
            part = message if example.whole else message[: len(example.bytes)]
            return vector["type"] == type and part == example.bytes

        if rule:
            vector = next(filter(shown, REJECTED))
            self.assertEqual(refusal(vector).rule, int(rule))
        elif line:
            vector = ACCEPTED[int(line) - 1]
            self.assertTrue(shown(vector))
            self.assertEqual(vector["form"], form)
        else:
            vector = next(vector for vector in filter(shown, ACCEPTED) if vector["form"] == form)
            self.assertEqual(vector["record"], json.loads(record))


if __name__ == "__main__":
    unittest.main()
