"""A daemon answers the client that was made from docs/protocol.md as it says, in its examples byte for byte."""

import json
import os
import re
import unittest
from pathlib import Path

import documents
from daemon import TARND, running_daemon
from interface_text import read_types, slot_of
from tarn import frames, velto

ROOT = Path(__file__).resolve().parents[2]
INTERFACE = (ROOT / "tests" / "golden" / "interface.txt").read_text(encoding="utf-8")
TYPES, FACTS = read_types(INTERFACE)
TARND_AGENT = "TarnSysdiagTarndAgent"


def online_request(**other):
    message = velto.write_regular(TYPES, "PidIsOnlineInput", {"uiPid": os.getpid()})
    return frames.request(TARND, "PidIsOnline", FACTS["PidIsOnlineInput"]["hash"], message, **other)


class DaemonTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.daemon, cls.run_dir = cls.enterClassContext(running_daemon())

    @classmethod
    def connect(cls, service):
        connection = frames.Connection(cls.run_dir / f"{service}.sock")
        connection.socket.settimeout(60)
        return connection

    def expect_online(self, answer, id=1):
        self.assertEqual((answer.kind, answer.id), (frames.REPLY, id), answer)
        record = velto.read(TYPES, "PidIsOnlineOuput", answer.message)
        self.assertEqual(record, {"uiPid": os.getpid(), "ucIsOnline": 1})

    def expect_error(self, answer, status=0, code=0, id=1):
        self.assertEqual((answer.kind, answer.id, answer.word24, answer.code), (frames.ERROR, id, status, code), answer)
        self.assertEqual((answer.word20, answer.service, answer.method), (0, "", ""))
        self.assertTrue(answer.text)


class Examples(DaemonTest):
    def setUp(self):
        examples = documents.read_examples(ROOT / "docs" / "protocol.md")
        self.examples = {example.title: example.bytes for example in examples}

    def expect_answer(self, request, title):
        with self.connect(TARND) as connection:
            connection.socket.sendall(request)
            self.assertEqual(connection.receive_bytes().hex(" "), self.examples[title].hex(" "))

    def test_of_a_call(self):
        self.expect_answer(self.examples["request"], "reply")

    def test_of_an_error(self):
        name = b"PidIsOnline"
        self.expect_answer(self.examples["request"].replace(name, name[:-1] + b"\0"), "error")

    def test_of_an_explanation(self):
        type = "SysOvLoadCpuThreshold"
        record = {slot.member: 0 for slot in TYPES[type]} | {"uiValue1": 1900}
        message = velto.write_fixed(TYPES, type, record)
        request = frames.request(TARND, "SysOvLoadCpuThresholdSet", FACTS[type]["hash"], message, id=2)
        self.expect_answer(request.to_bytes(), "reply with explanation")
        request.word24 = 0
        with self.connect(TARND) as connection:
            answer = connection.call(request)
        self.assertEqual((answer.word20, answer.text), (0, ""))
        self.assertEqual(velto.read(TYPES, "Result", answer.message), {"uiResult": 22})


class Calls(DaemonTest):
    def test_share_a_connection_and_are_told_apart_by_their_ids(self):
        ids = [7, 2**64 - 1, 1, 3]
        with self.connect(TARND) as connection:
            connection.send(*(online_request(id=id) for id in ids))
            answers = {answer.id: answer for answer in (connection.receive() for _ in ids)}
        self.assertEqual(set(answers), set(ids))
        for id, answer in answers.items():
            self.expect_online(answer, id)

    def test_may_arrive_in_any_pieces(self):
        with self.connect(TARND) as connection:
            for byte in online_request().to_bytes():
                connection.socket.sendall(bytes([byte]))
            self.expect_online(connection.receive())

    def test_reach_all_services_of_a_server_on_each_of_its_sockets(self):
        with self.connect(TARND_AGENT) as connection:
            self.expect_online(connection.call(online_request()))

    def test_one_way_and_cancels_are_not_answered(self):
        with self.connect(TARND) as connection:
            connection.send(online_request(id=1, kind=frames.ONEWAY), frames.Frame(frames.CANCEL, id=2))
            connection.send(frames.request(TARND, "NoSuchMethod", 0, b"", id=3, kind=frames.ONEWAY))
            self.expect_online(connection.call(online_request(id=4)), 4)

    def test_of_a_method_without_reply_are_answered_with_an_empty_one(self):
        message = velto.write_regular(TYPES, "None", {})
        with self.connect(TARND) as connection:
            answer = connection.call(frames.request(TARND, "DetectTarndServerOnline", velto.type_hash("None"), message))
        self.assertEqual((answer.kind, answer.payload), (frames.REPLY, b""))

    def test_that_are_refused_leave_the_connection_as_it_is(self):
        with self.connect(TARND) as connection:
            for change, status, code in [
                ({"method": "NoSuchMethod"}, 0, 2),
                ({"service": "NoSuchService", "method": "NoSuchMethod", "type_hash": 1}, 0, 2),
                ({"type_hash": velto.type_hash("None")}, 0, 91),
                ({"payload": b""}, 12, 0),
                ({"payload": bytes(12)}, 12, 0),
                ({"payload": self.longest() + b"\0"}, 0, 90),
                ({"kind": frames.REPLY}, 0, 74),
                ({"service": "TarnHostRuntime", "method": "NoSuchMethod"}, 0, 2),
            ]:
                with self.subTest(**change):
                    request = online_request()
                    for key, value in change.items():
                        setattr(request, key, value)
                    self.expect_error(connection.call(request), status, code)
            self.expect_online(connection.call(online_request()))


    def test_may_be_twice_as_long_as_their_fixed_form_and_4096_bytes(self):
        request = online_request()
        request.payload = self.longest()
        with self.connect(TARND) as connection:
            self.expect_online(connection.call(request))

    def longest(self):
        return online_request().payload.ljust(2 * FACTS["PidIsOnlineInput"]["size"] + 4096, b"\0")


class Streams(DaemonTest):
    def test_without_frames_are_told_so_and_closed(self):
        for at, bytes_there, code in [
            (0, b"GET ", 74),
            (4, b"\2", 74),
            (6, b"\0", 74),
            (6, b"\6", 74),
            (32, b"\xff\xff\xff\xff", 90),
            (36, b"\1", 74),
            (40, b"\x1f", 74),
            (71, b"x", 74),
            (72, b"\x7f", 74),
        ]:
            with self.subTest(at=at, bytes=bytes_there), self.connect(TARND) as connection:
                stream = bytearray(online_request().to_bytes())
                stream[at : at + len(bytes_there)] = bytes_there
                connection.socket.sendall(stream)
                self.expect_error(connection.receive(), code=code, id=0)

    def test_of_another_kind_are_told_so_at_their_first_byte(self):
        with self.connect(TARND) as connection:
            connection.socket.sendall(b"G")
            self.expect_error(connection.receive(), code=74, id=0)
            self.assertIsNone(connection.receive())

    def test_may_have_anything_in_fields_that_a_kind_has_no_use_for(self):
        request = online_request(takes=0xFFFFFFFE)
        request.code = 5
        with self.connect(TARND) as connection:
            answer = connection.call(request)
        self.expect_online(answer)


class Runtime(DaemonTest):
    KINDS = {"scalar": {1: "u8", 2: "u16", 4: "u32", 8: "u64"}, "string": "string", "bytes": "bytes[{length}]",
             "array64": "u64[{length}]", "byte-vector": "vector of u8", "vector32": "vector of u32",
             "table": "table {type}", "run": "tables {type}[{length}]", "table-vector": "vector of {type}"}
    METHOD = re.compile(r" +(\d+) (\w+): .*\n +request   (\w+) 0x(\w+)(?:\n +response  (\w+) 0x(\w+))?")
    METHOD_KEYS = {"name", "index", "group", "long", "sentence", "example", "request", "response"}
    MEMBER_KEYS = {"wire", "name", "kind", "sentence"}
    OPTIONAL_KEYS = {"least", "most", "choices", "open", "zero", "standsFor", "notAbove", "notBelow", "matters",
                     "mattersAt"}

    def ask(self, method, socket=TARND):
        with self.connect(socket) as connection:
            answer = connection.call(frames.request("TarnHostRuntime", method, 0, b""))
        self.assertEqual(answer.kind, frames.REPLY, answer.text)
        return json.loads(answer.message)

    def methods(self, service):
        """As interface.txt has them: number, name, type of the request and its hash, the same of the response."""
        part = INTERFACE.split(f"Served service {service}\n")[1].split("\n\n")[0]
        return [(int(index), name, request, int(hash, 16), response, int(response_hash or "0", 16))
                for index, name, request, hash, response, response_hash in self.METHOD.findall(part)]

    def test_tells_its_health_on_each_socket(self):
        for service in TARND, TARND_AGENT:
            health = self.ask("Health", service)
            self.assertEqual(set(health), {"state", "pid", "uptime_ms", "workers", "busy", "connections", "requests",
                                           "timezone", "version"})
            self.assertEqual((health["state"], health["pid"]), ("serving", self.daemon.pid))

    def test_tells_the_status_of_its_methods(self):
        status = self.ask("Status")
        self.assertEqual(set(status), {"health", "limits", "mistakes", "refused", "services"})
        for entry in status["limits"] + status["refused"]:
            self.assertEqual(set(entry), {"name", "value", "meaning"})
        self.assertEqual([service["name"] for service in status["services"]], [TARND, TARND_AGENT])
        for service in status["services"]:
            keys = "index", "name", "request", "request_hash", "response", "response_hash"
            found = [tuple(method[key] for key in keys) for method in service["methods"]]
            self.assertEqual(found, self.methods(service["name"]))
            counts = {"calls", "errors", "cancelled", "p50_ns", "p99_ns", "max_ns", "sum_ns", "below"}
            for method in service["methods"]:
                self.assertEqual(set(method), counts | set(keys))

    def test_describes_its_methods(self):
        described = self.ask("Describe")
        records = described["records"]
        for service in described["services"]:
            found = []
            for method in service["methods"]:
                self.assertEqual(set(method), self.METHOD_KEYS)
                response = "" if method["response"] is None else records[method["response"]]["type"]
                found.append((method["index"], method["name"], records[method["request"]]["type"], response))
            self.assertEqual(found, [(row[0], row[1], row[2], row[4]) for row in self.methods(service["name"])])

    def test_describes_its_types(self):
        described = self.ask("Describe")
        known = set()
        for type in described["types"]:
            self.assertEqual(type["hash"], velto.type_hash(type["name"]))
            for slot, expected in zip(type["slots"], TYPES[type["name"]], strict=True):
                kind = self.KINDS[slot["kind"]]
                kind = kind[slot["width"]] if slot["kind"] == "scalar" else kind.format(**slot)
                self.assertEqual(slot_of(slot["member"], kind), expected, type["name"])
                self.assertEqual(slot["count"] is not None, expected.shape in ("vector", "tables"))
                self.assertEqual(slot["width"], 0 if expected.inner else expected.width)
                self.assertIn(slot["type"], known | {None})
            known.add(type["name"])
        self.assertGreater(len(known), 100)

    def test_describes_records_that_stand_behind_what_is_inside_of_them(self):
        records = self.ask("Describe")["records"]
        for number, record in enumerate(records):
            slots = TYPES[record["type"]]
            self.assertEqual([member["wire"] for member in record["members"]], [slot.member for slot in slots])
            for member in record["members"]:
                self.assertEqual(set(member) - self.OPTIONAL_KEYS, self.MEMBER_KEYS)
            inside = [None if inner is None else records[:number][inner]["type"] for inner in record["inside"]]
            self.assertEqual(inside, [slot.inner for slot in slots])


if __name__ == "__main__":
    unittest.main()
