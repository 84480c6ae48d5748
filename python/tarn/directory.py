"""Where servers have their sockets, and whose servers are trusted: docs/protocol.md, "Sockets"."""

import os
import pwd
import socket
import struct
from pathlib import Path

SYSTEM = Path("/run/tarn")


def default_run_dir():
    if named := os.environ.get("TARN_RUN_DIR"):
        return Path(named)
    parent = os.environ.get("XDG_RUNTIME_DIR")
    return SYSTEM if os.geteuid() == 0 or not parent or SYSTEM.is_dir() else Path(parent) / "tarn"


def socket_of(run_dir, service, agent):
    return run_dir / (f"{service}.sock" if agent is None else f"agent-{agent}.sock")


def daemon_user():
    """The user that the daemon runs as; None where there is no such user."""
    name = os.environ.get("TARN_USER") or "tarn"
    try:
        return int(name) if name.isdecimal() else pwd.getpwnam(name).pw_uid
    except KeyError:
        return None


def why_not_trusted(connected, run_dir, agent):
    """What is wrong with who holds the other end; empty if nothing is."""
    credentials = connected.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i"))
    pid, user, _ = struct.unpack("3i", credentials)
    held = f"the socket {connected.getpeername()} is held by process {pid} of user {user}, expected "
    if agent is not None:
        return "" if pid == agent else f"{held}process {agent}"
    owner, daemon = os.stat(run_dir).st_uid, daemon_user()
    if user in (0, os.geteuid(), owner, daemon):
        return ""
    return (f"{held}root, user {os.geteuid()}, the directory's owner, user {owner}, or the daemon's user, "
            f"{'of which there is none' if daemon is None else daemon} (TARN_USER)")
