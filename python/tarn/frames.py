"""A client by docs/protocol.md."""

import json
import socket
import struct
from dataclasses import dataclass

REQUEST, ONEWAY, REPLY, ERROR, CANCEL = 1, 2, 3, 4, 5
TAKES_EXPLANATION = 1
HEADER = struct.Struct("<4sHHQIIIIII32s64s")


@dataclass
class Frame:
    kind: int
    id: int = 0
    type_hash: int = 0
    word20: int = 0  # of a request the deadline, of a reply the length of the explanation
    word24: int = 0  # of a request what its caller takes, of an error the status
    code: int = 0
    service: str = ""
    method: str = ""
    payload: bytes = b""

    def to_bytes(self):
        return HEADER.pack(b"TRPC", 1, self.kind, self.id, self.type_hash, self.word20, self.word24, self.code,
                           len(self.payload), 0, self.service.encode(), self.method.encode()) + self.payload

    @property
    def message(self):
        return self.payload[: len(self.payload) - self.word20] if self.kind == REPLY else b""

    @property
    def text(self):
        """The explanation of a reply, or what an error says."""
        return self.payload[len(self.message) :].decode()


def request(service, method, type_hash, message, id=1, deadline=10000, takes=TAKES_EXPLANATION, kind=REQUEST):
    return Frame(kind, id, type_hash, deadline, takes if kind == REQUEST else 0, 0, service, method, message)


class Connection:
    """To the server of a socket."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            self.socket.connect(str(path))
        except OSError:
            self.socket.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send(self, *frames):
        self.socket.sendall(b"".join(frame.to_bytes() for frame in frames))

    def read(self, size):
        """Less than that where the connection ends."""
        data = bytearray()
        while len(data) < size and (piece := self.socket.recv(size - len(data))):
            data += piece
        return bytes(data)

    def receive_bytes(self):
        """Those of the next frame; none when the connection has ended."""
        header = self.read(HEADER.size)
        return header + self.read(HEADER.unpack(header)[8]) if header else b""

    def receive(self):
        """The next frame; None when the connection has ended."""
        data = self.receive_bytes()
        if not data:
            return None
        magic, version, kind, *words, length, zero, service, method = HEADER.unpack_from(data)
        payload = data[HEADER.size :]
        if (magic, version, zero, length) != (b"TRPC", 1, 0, len(payload)) or kind not in (REPLY, ERROR):
            raise ValueError(f"found {data.hex(' ')}, expected a reply or an error")
        names = (name.rstrip(b"\0").decode("ascii") for name in (service, method))
        return Frame(kind, *words, *names, payload)

    def call(self, frame):
        self.send(frame)
        return self.receive()

    def ask_runtime(self, method):
        """The JSON object that a method of the runtime's own service answers with."""
        answer = self.call(request("TarnHostRuntime", method, 0, b""))
        if answer.kind != REPLY:
            raise ValueError(f"{method}: {answer.text}")
        return json.loads(answer.message)
