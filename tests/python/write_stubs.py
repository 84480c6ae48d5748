"""write_stubs.py FILE: writes the stubs of the module as the daemon has them. TARND is its program."""

import sys
from pathlib import Path

import tarn
from daemon import running_daemon
from tarn.stubs import stub_of

with running_daemon() as (_, run_dir), tarn.connect(run_dir=run_dir) as daemon:
    Path(sys.argv[1]).write_text(stub_of(daemon.interface), encoding="utf-8")
