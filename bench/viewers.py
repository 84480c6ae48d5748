#!/usr/bin/python3
"""What a daemon takes of one CPU while many look at its page: viewers.py PROGRAMS [VIEWERS]. The directory has the
programs; each figure is measured over a minute."""

import http.client
import os
import pathlib
import subprocess
import sys
import tempfile
import threading
import time

SECONDS = 60
VIEWS = {"the overview": "cpus,cpu,memory,health,figures", "all processes": "processes"}


def used(process):
    """Seconds."""
    fields = pathlib.Path(f"/proc/{process.pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def view(port, token, topics):
    connection = http.client.HTTPConnection("127.0.0.1", port)
    connection.request("GET", f"/api/live?topics={topics}", headers={"Authorization": f"Bearer {token}"})
    answer = connection.getresponse()
    while answer.read1(65536):
        pass


def main(programs, viewers):
    page = pathlib.Path(__file__).resolve().parents[1] / "host/web/page"
    with tempfile.TemporaryDirectory() as work:
        pathlib.Path(work, "logs").mkdir()
        daemon = subprocess.Popen([f"{programs}/tarnd", "--run-dir", work, "--log-dir", f"{work}/logs", "--state-dir",
                                   f"{work}/state"], stderr=subprocess.DEVNULL)
        time.sleep(3)
        for name, topics in VIEWS.items():
            web = subprocess.Popen([f"{programs}/tarn-web", "--run-dir", work, "--listen", "127.0.0.1:0", "--page",
                                    page, "--log-level", "error"], stdout=subprocess.PIPE, text=True)
            address, _, token = web.stdout.readline().strip().partition("/?token=")
            port = int(address.rpartition(":")[2])
            for _ in range(viewers):
                threading.Thread(target=view, args=(port, token, topics), daemon=True).start()
            time.sleep(3)
            before = [used(process) for process in (daemon, web)]
            time.sleep(SECONDS)
            shares = [100 * (used(process) - then) / SECONDS for process, then in zip((daemon, web), before)]
            print(f"{viewers} look at {name}: the daemon takes {shares[0]:.2f} %, tarn-web {shares[1]:.2f} %",
                  flush=True)
            web.terminate()  # which ends the viewers
            web.wait()
        daemon.terminate()
        daemon.wait()


if __name__ == "__main__":
    main(sys.argv[1], int(sys.argv[2]) if len(sys.argv) > 2 else 100)
