"""Servers of the tests' own."""

import contextlib
import os
import subprocess
import tempfile
import time
from pathlib import Path

from tarn import frames

TARND = "TarnSysdiagTarnd"


@contextlib.contextmanager
def running(command, socket_of):
    """A server, from when it listens on the socket that its process has."""
    server = subprocess.Popen(command, stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + 60
    try:
        while True:
            try:
                frames.Connection(socket_of(server.pid)).close()
                break
            except OSError:
                if server.poll() is not None or time.monotonic() > deadline:
                    raise
                time.sleep(0.01)
        yield server
    finally:
        server.terminate()
        server.wait()


def daemon_in(directory):
    """The daemon, with all that it has in that directory."""
    directories = ["--run-dir", directory, "--log-dir", directory, "--state-dir", f"{directory}/state"]
    command = [os.environ["TARND"], *directories, "--log-level", "error"]
    return running(command, lambda _: f"{directory}/{TARND}.sock")


@contextlib.contextmanager
def running_daemon():
    """The daemon's process, and its run directory."""
    with tempfile.TemporaryDirectory() as scratch, daemon_in(scratch) as daemon:
        yield daemon, Path(scratch)


@contextlib.contextmanager
def running_agent(run_dir):
    """The process of an application with an agent."""
    with running([os.environ["TARN_AGENT"], "--run-dir", run_dir], lambda pid: run_dir / f"agent-{pid}.sock") as agent:
        yield agent
