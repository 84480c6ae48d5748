import errno
import time

import pytest
import tarn
from daemon import running_daemon


def await_samples(run_dir):
    """Of the CPUs, of which the daemon has one at its start, and two a tenth of a second later."""
    with tarn.connect(run_dir=run_dir, deadline=60) as client:
        deadline = time.monotonic() + 60
        while True:
            try:
                return client.ps()
            except tarn.CallFailed as failed:
                if failed.errno != errno.EAGAIN or time.monotonic() > deadline:
                    raise
                time.sleep(0.01)


@pytest.fixture(scope="session")
def served():
    """The daemon's process, and its run directory."""
    with running_daemon() as daemon:
        await_samples(daemon[1])
        yield daemon
