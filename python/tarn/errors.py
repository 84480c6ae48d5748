"""What a call can fail with."""

import errno
from typing import Any

ALIASES = "EWOULDBLOCK", "EDEADLOCK", "ENOTSUP"
ERRNO_NAMES = {number: name for name, number in vars(errno).items() if name[0] == "E" and name not in ALIASES}
ERRNO_OF_NAME = {name: number for number, name in ERRNO_NAMES.items()}


class Error(Exception):
    """All that this module raises of its own."""


class BadRequest(Error):
    """A method or a member that there is not, or a value that doesn't fit it: nothing was sent."""


class CallFailed(Error):
    """The call's `errno`, and the `reason` that was given for it. `reply` is the record where the method answered with
    one, which may hold more than the result."""

    def __init__(self, what: str, number: int, reason: str, reply: Any = None):
        super().__init__(what, number, reason, reply)
        self.what, self.errno, self.reason, self.reply = what, number, reason, reply

    def __str__(self) -> str:
        name = ERRNO_NAMES.get(self.errno, str(self.errno))
        return f"{self.what}: {name}" + (f": {self.reason}" if self.reason else "")


class Unreachable(CallFailed):
    """There is no server, none that is trusted, or the connection to it has ended."""


class TimedOut(CallFailed):
    """No answer came in time."""
