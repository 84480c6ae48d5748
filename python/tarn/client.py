"""Calls of a server's methods."""

import json
import threading
import time
from datetime import datetime, timezone
from functools import cached_property
from os import PathLike
from pathlib import Path
from typing import TYPE_CHECKING, Any, Iterable, Iterator, Mapping

from . import frames
from .directory import default_run_dir, socket_of, why_not_trusted
from .errors import ERRNO_OF_NAME, CallFailed, TimedOut, Unreachable
from .meaning import Interface
from .methods import Methods
from .values import Event, named, wired
from .velto import Refused, read, type_hash, write_regular

if TYPE_CHECKING:
    from .methods import SysCpuStatProc

TARND, AGENT, RUNTIME = "TarnSysdiagTarnd", "TarnSysdiagAgent", "TarnHostRuntime"
LONGEST_DEADLINE = 3600
WAIT_FOR_EVENTS = 60  # seconds, again and again
RETRY = 1  # seconds until a daemon that has gone is looked for again


def connect(
    service: str = TARND, *, agent: int | None = None, run_dir: str | PathLike[str] | None = None, deadline: float = 5.0
) -> "Client":
    """A client of the daemon; of another service's server, "TarnSysdiagMaster"; or of the agent of a process.

    `run_dir` is the directory of the sockets, `deadline` how many seconds a call takes at most that states none itself.
    """
    return Client(AGENT if agent is not None else service, agent, Path(run_dir or default_run_dir()), deadline)


class Client(Methods):
    """One call runs at a time, whichever threads make them. One that is given up, for lack of time or by an exception,
    ends at the server as well. A connection that has ended is made anew."""

    def __init__(self, service: str, agent: int | None, run_dir: Path, deadline: float):
        self._service, self._agent, self._run_dir, self._deadline = service, agent, run_dir, deadline
        self._lock = threading.Lock()
        self._connection = self._open(service, deadline)

    def __enter__(self) -> "Client":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        with self._lock:
            self._drop()

    @cached_property
    def interface(self) -> Interface:
        """What the server says of its methods."""
        return Interface(self.ask_runtime("Describe"))

    def ask_runtime(self, method: str, question: Any = None, deadline: float | None = None) -> Any:
        """What the server's own service answers with, such as "Health" or "Status"."""
        message = b"" if question is None else json.dumps(question).encode()
        return json.loads(self._exchange(RUNTIME, method, 0, message, deadline).message)

    def request(self, method: str, members: Mapping[str, Any], deadline: float | None = None) -> Any:
        """As `call`, with the members in a dictionary."""
        known = self.interface.find(method)
        types, request = self.interface.types, known.request
        message = write_regular(types, request.type, wired(types, request, members))
        answer = self._exchange(known.service, known.name, type_hash(request.type), message, deadline)
        if known.reply is None:
            return None
        try:
            reply = named(known.reply, read(types, known.reply.type, answer.message))
        except Refused as refused:
            raise CallFailed(known.name, ERRNO_OF_NAME["EBADMSG"], f"the reply is no {known.reply.type}: {refused}")
        return checked(known, reply, answer.text)

    def ps(self) -> "list[SysCpuStatProc]":
        """The processes, the busiest first."""
        processes = self.call("SysCpuStatInfoQuery").processes
        return sorted(processes, key=lambda process: process.cpu_permille, reverse=True)

    def events(
        self, *, kinds: Iterable[str] = (), first: int = 0, last: int | None = None, follow: bool = False
    ) -> Iterator[Event]:
        """What happened, as the daemon's journal has it: from the event with the number `first` on, or the `last` so
        many. With `follow` it waits for more and never ends; what happens while the daemon is started anew is not
        missed."""
        question = {"kinds": list(kinds), "from": first, "wait_ms": WAIT_FOR_EVENTS * 1000 if follow else 0}
        if last is not None:
            question["last"] = last
        with Client(self._service, self._agent, self._run_dir, self._deadline) as reader:
            while True:
                page = reader._page(question, follow)
                for event in page["events"]:
                    time_of = datetime.fromtimestamp(event.pop("time_ms") / 1000, timezone.utc)
                    yield Event(event, time=time_of)
                question |= {"journal": page["journal"], "from": page["next"]}
                question.pop("last", None)
                if not follow and page["next"] >= page["end"]:
                    return

    def _page(self, question, follow):
        while True:
            try:
                return self.ask_runtime("Events", question, question["wait_ms"] / 1000 + self._deadline)
            except (Unreachable, TimedOut):
                if not follow:
                    raise
                time.sleep(RETRY)

    def _open(self, what, deadline):
        path = socket_of(self._run_dir, self._service, self._agent)
        try:
            connection = frames.Connection(path, deadline)
        except OSError as error:
            reason = f"{path}: {error.strerror or error}, expected the socket of a server"
            raise Unreachable(what, error.errno, reason) from None
        if wrong := why_not_trusted(connection.socket, self._run_dir, self._agent):
            connection.close()
            raise Unreachable(what, ERRNO_OF_NAME["EPERM"], wrong)
        return connection

    def _drop(self):
        connection, self._connection = self._connection, None
        if connection:
            connection.close()

    def _exchange(self, service, method, hash, message, deadline):
        """The reply's frame."""
        deadline = self._deadline if deadline is None else deadline
        if not 0 < deadline <= LONGEST_DEADLINE:
            raise ValueError(f"the deadline is {deadline}, expected up to {LONGEST_DEADLINE} seconds")
        request = frames.request(service, method, hash, message, deadline=max(int(deadline * 1000), 1))
        with self._lock:
            answer = self._answer(request, time.monotonic() + deadline)
        if answer.kind == frames.REPLY:
            return answer
        number = answer.word24 or answer.code or ERRNO_OF_NAME["EBADMSG"]
        failure = TimedOut if number == ERRNO_OF_NAME["ETIMEDOUT"] else CallFailed
        raise failure(method, number, answer.text.removeprefix(f"{service}.{method}: "))

    def _answer(self, request, until):
        if self._connection is None or self._connection.has_ended():
            self._drop()
            self._connection = self._open(request.method, max(until - time.monotonic(), 1e-6))
        try:
            self._connection.socket.settimeout(max(until - time.monotonic(), 1e-6))
            answer = self._connection.call(request, until)
            if answer is None:
                raise ConnectionResetError(ERRNO_OF_NAME["ECONNRESET"], "it ended")
            if answer.id != request.id and (answer.id, answer.kind) != (0, frames.ERROR):
                raise ValueError(f"found an answer to the call {answer.id}, expected one to {request.id}")
            return answer
        except TimeoutError:
            self._drop()
            raise TimedOut(request.method, ERRNO_OF_NAME["ETIMEDOUT"], "no answer came in time") from None
        except OSError as error:
            self._drop()
            raise Unreachable(request.method, error.errno, f"the connection: {error.strerror}") from None
        except ValueError as error:
            self._drop()
            raise CallFailed(request.method, ERRNO_OF_NAME["EBADMSG"], str(error)) from None
        except BaseException:
            self._drop()
            raise


def checked(method, reply, explanation):
    """The reply, unless its result says that the method failed: that is its first errno value."""
    result = next((member.key for member in method.reply.members if member.kind == "errno value"), None)
    found = "ok" if result is None else reply[result]
    if found != "ok":
        raise CallFailed(method.name, ERRNO_OF_NAME.get(found, found), explanation, reply)
    return reply
