import pytest
from daemon import running_daemon


@pytest.fixture(scope="session")
def served():
    """The daemon's process, and its run directory."""
    with running_daemon() as daemon:
        yield daemon
