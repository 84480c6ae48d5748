"""A real Prometheus scrapes the daemon's figures, and its rules fire."""

import json
import socket
import urllib.request

import pytest
from kit import SOURCES, Programs, eventually

ADDRESS = "127.0.0.1"


@pytest.fixture(scope="module")
def tarn():
    programs = Programs()
    programs.start_daemon()
    programs.start_web()
    yield programs
    programs.end()


def free_port():
    with socket.socket() as one:
        one.bind((ADDRESS, 0))
        return one.getsockname()[1]


@pytest.fixture(scope="module")
def prometheus(tarn):
    """Its address."""
    (tarn.work / "scrape-token").write_text(tarn.token)
    config = tarn.work / "prometheus.json"  # which is YAML, too
    config.write_text(json.dumps({
        "global": {"scrape_interval": "1s", "evaluation_interval": "1s"},
        "rule_files": [str(SOURCES / "contrib/alerts.yml")],
        "scrape_configs": [{
            "job_name": "tarn",
            "authorization": {"credentials_file": str(tarn.work / "scrape-token")},
            "static_configs": [{"targets": [f"{ADDRESS}:{tarn.port}"]}],
        }]}))
    port = free_port()
    tarn.start("prometheus", f"--config.file={config}", f"--storage.tsdb.path={tarn.work}/series",
               f"--web.listen-address={ADDRESS}:{port}", "--log.level=error")
    return f"http://{ADDRESS}:{port}/api/v1"


def get(address):
    try:
        with urllib.request.urlopen(address, timeout=60) as answer:
            return json.load(answer)["data"]
    except OSError:  # it has not started yet
        return None


def value_of(prometheus, series):
    found = (get(f"{prometheus}/query?query={series}") or {"result": []})["result"]
    return float(found[0]["value"][1]) if found else None


def test_scrapes(tarn, prometheus):
    eventually(lambda: value_of(prometheus, "up") == 1, "it is scraped")
    eventually(lambda: value_of(prometheus, "tarn_memory_used_ratio"), "a figure")
    assert 0 < value_of(prometheus, "tarn_memory_used_ratio") < 1


def test_rule_fires(tarn, prometheus):
    def firing():
        told = get(f"{prometheus}/alerts") or {"alerts": []}
        return [one["labels"]["alertname"] for one in told["alerts"] if one["state"] == "firing"]

    eventually(lambda: value_of(prometheus, "up") == 1, "it is scraped")
    assert "TarnCrash" not in firing()
    tarn.start_agent()
    tarn.ctl("exec", "example", "crash", "segv", check=False)
    eventually(lambda: "TarnCrash" in firing(), "the alert of a crash")
