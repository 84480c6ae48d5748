"""The devices of a fleet, and the page of one of them, whose daemon is reached over the fleet's server."""

import json
import os
import re

import pytest
from kit import Browser, Programs, eventually


@pytest.fixture(scope="module")
def fleet():
    programs = Programs()
    server = programs.work / "server.conf"
    server.write_text(f'listen: "127.0.0.1:-1"\njetstream {{ store_dir: "{programs.work}/streams" }}\n')
    programs.start(os.environ["NATS_SERVER"], "--config", server)
    log = programs.work / "nats-server.log"
    eventually(lambda: "Server is ready" in log.read_text(), "the fleet's server is there")
    url = "nats://" + re.search(r"client connections on (\S+)", log.read_text())[1]
    account = programs.work / "fleet.conf"
    account.write_text(f"server = {url}\n")
    relay = programs.work / "relay.conf"
    relay.write_text(f"server = {url}\ndevice = press-1\ngroups = reading memory\nhello-seconds = 1\n")
    made = programs.start(os.environ["TARN_RELAY"], "--make-streams", relay)
    assert made.wait(60) == 0
    programs.start_daemon()
    programs.start(os.environ["TARN_RELAY"], "--run-dir", programs.run_dir, relay)
    programs.start_web("--fleet", account)
    yield programs
    programs.end()


def test_device_is_asked_over_the_fleets_server(fleet):
    eventually(lambda: fleet.request("/api/ask/settings?device=press-1")[0] == 200, "the device answers")
    rows = fleet.ask("/api/ask/settings?device=press-1")["rows"]
    assert "cpu.begins-at" in [row["name"] for row in rows]
    status, _, text = fleet.request("/api/ask/settings?device=press-2")
    assert status >= 500 and "press-2" in json.loads(text)["error"]
    assert fleet.request("/api/ask/settings")[0] == 400  # whose?
    assert fleet.request("/api/ask/settings?device=..")[0] == 400
    assert fleet.ask("/api/about")["fleet"] is True


def test_grid_leads_to_a_device(fleet):
    browser = Browser()
    try:
        browser.open(fleet.address)
        browser.await_text("press-1", ".grid")
        browser.await_text("serving", ".grid .level.good")
        browser.picture("fleet")
        browser.click(".grid a.device")
        browser.await_text("cpu0", ".meters")
        assert browser.text("#where") == "press-1"
        browser.click("nav a[href='#/at/press-1/processes']")
        browser.await_text("tarnd", "tbody")
        browser.click("nav a[href='#/']")
        browser.await_text("press-1", ".grid")
        browser.gather()
        assert browser.errors == []
    finally:
        browser.end()
