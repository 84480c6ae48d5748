"""Asks the diagnosis daemon, its master and the agents inside applications.

    import tarn

    with tarn.connect() as daemon:
        for process in daemon.ps():
            print(process.process, process.name, process.cpu_permille)
"""

from .client import Client, connect
from .errors import BadRequest, CallFailed, Error, TimedOut, Unreachable
from .values import Event, Record

__all__ = ["BadRequest", "CallFailed", "Client", "Error", "Event", "Record", "TimedOut", "Unreachable", "connect"]
