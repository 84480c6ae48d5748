"""Frames, and the connection that carries them, by docs/protocol.md."""

import select
import socket
import struct
import time
from dataclasses import dataclass

REQUEST, ONEWAY, REPLY, ERROR, CANCEL = 1, 2, 3, 4, 5
TAKES_EXPLANATION = 1
HEADER = struct.Struct("<4sHHQIIIIII32s64s")
LONGEST_REPLY = 4 << 20


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
        return self.payload[len(self.message) :].decode(errors="replace")


def request(service, method, type_hash, message, id=1, deadline=10000, takes=TAKES_EXPLANATION, kind=REQUEST):
    return Frame(kind, id, type_hash, deadline, takes if kind == REQUEST else 0, 0, service, method, message)


class Connection:
    """To the server of a socket."""

    def __init__(self, path, timeout=None):
        """`timeout` is how many seconds it waits where as many wait already as the server's socket lets wait."""
        self.buffer = bytearray()
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_CLOEXEC)
        try:
            if timeout is not None:
                wait = struct.pack("@ll", int(timeout), max(int(timeout % 1 * 1_000_000), 1))
                self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, wait)
            self.socket.connect(str(path))
        except OSError:
            self.socket.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.socket.close()

    def send(self, *frames):
        self.socket.sendall(b"".join(frame.to_bytes() for frame in frames))

    def fill(self, size, until):
        """Whether so many bytes are there, and not the end of the connection."""
        while len(self.buffer) < size:
            if until is not None:
                self.socket.settimeout(max(until - time.monotonic(), 1e-6))
            piece = self.socket.recv(1 << 16)
            if not piece:
                return False
            self.buffer += piece
        return True

    def receive_bytes(self, until=None):
        """Those of the next frame; none when the connection has ended. `until` is a time of time.monotonic()."""
        if not self.fill(HEADER.size, until):
            return b""
        size = HEADER.unpack_from(self.buffer)[8]
        if size > LONGEST_REPLY:
            raise ValueError(f"found an answer of {size} bytes, expected at most {LONGEST_REPLY}")
        if not self.fill(HEADER.size + size, until):
            return b""
        data = bytes(self.buffer[: HEADER.size + size])
        del self.buffer[: len(data)]
        return data

    def receive(self, until=None):
        """The next frame; None when the connection has ended."""
        data = self.receive_bytes(until)
        if not data:
            return None
        magic, version, kind, *words, _, zero, service, method = HEADER.unpack_from(data)
        frame = Frame(kind, *words, *(name.rstrip(b"\0").decode("latin-1") for name in (service, method)),
                      data[HEADER.size :])
        explained = frame.word20 if kind == REPLY else 0
        if (magic, version, zero) != (b"TRPC", 1, 0) or kind not in (REPLY, ERROR) or explained > len(frame.payload):
            raise ValueError(f"found {data[:HEADER.size].hex(' ')}, expected a reply or an error")
        return frame

    def call(self, frame, until=None):
        self.send(frame)
        return self.receive(until)

    def has_ended(self):
        """Or something has come that nobody asked for."""
        return bool(self.buffer or select.select([self.socket], [], [], 0)[0])
