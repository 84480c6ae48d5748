"""Each view of the page, in a browser, against a real daemon."""

import json
import os
import pathlib
import re
import shutil
import subprocess
import time

import pytest
from kit import Browser, Programs, eventually
from selenium.webdriver.common.keys import Keys

EVIL = "<img src=x onerror=alert(1)>"

# What makes the page wider than the window.
WIDER = """
    const root = document.documentElement;
    if (root.scrollWidth <= innerWidth) return [];
    return [...document.querySelectorAll('body *')].filter(one => one.getBoundingClientRect().right > innerWidth)
        .map(one => `${one.tagName} ${one.className}: ${one.getBoundingClientRect().right} of ${innerWidth}`)"""


@pytest.fixture(scope="module")
def tarn():
    programs = Programs()
    programs.start_daemon()
    programs.start_web("--allow", "settings", "commands")
    yield programs
    programs.end()


@pytest.fixture(scope="module")
def agent(tarn):
    return tarn.start_agent()


@pytest.fixture(scope="module")
def browser(tarn):
    browser = Browser()
    browser.open(tarn.address)
    browser.await_text("Overview", "h1")
    yield browser
    browser.end()


def go(tarn, browser, view):
    browser.open(f"{tarn.base}#/{view}")


def rows(browser):
    return browser.run("return [...document.querySelectorAll('tbody tr')].map(row => row.innerText)")


def test_overview(tarn, browser):
    go(tarn, browser, "overview")
    eventually(lambda: re.search(r"CPUs busy\s+[\d.]+ %", browser.text()), "a figure of the CPUs")
    eventually(lambda: re.search(r"Memory in use\s+[\d.]+ %", browser.text()), "a figure of memory")
    eventually(lambda: "cpu0" in browser.text(".meters"), "a meter of each processor")
    assert len(browser.find(".meter")) == os.cpu_count()
    eventually(lambda: browser.text("#state") == "live", "it is live")
    browser.picture("overview")


def test_process_that_spins_is_on_top(tarn, browser, agent):
    go(tarn, browser, "processes")
    browser.await_text("tarnd", "tbody")
    tarn.ctl("exec", "example", "loop", "300")
    # It shares the processors with whatever runs beside the test: being on top of that takes longer then.
    eventually(lambda: str(agent.pid) in browser.text("tbody tr:nth-child(-n+3)"), "it is among the first three")
    browser.picture("processes")
    browser.find("input[type=search]")[0].send_keys("tarn-agent")
    eventually(lambda: all("tarn-agent" in row for row in rows(browser)), "the filter leaves its name alone")
    assert any(str(agent.pid) in row for row in rows(browser))


def test_its_flame_graph_names_the_function(tarn, browser, agent):
    go(tarn, browser, f"process/{agent.pid}")
    browser.await_text(f"({agent.pid})", "h1")
    browser.await_text("spinning", "tbody")
    browser.click("button.main")
    eventually(lambda: any("SpinUntil" in one.get_attribute("aria-label") for one in browser.find(".flame g")),
               "a frame of SpinUntil")
    browser.find("input[placeholder='Search a function']")[0].send_keys("SpinUntil")
    eventually(lambda: browser.find(".flame rect.found"), "it is found")
    assert re.search(r"\d+\.\d % of the samples are in it", browser.text(".bar [role=status]"))
    browser.picture("process")
    frame = next(one for one in browser.find(".flame g") if "spinning" in one.get_attribute("aria-label"))
    frame.send_keys(Keys.ENTER)
    eventually(lambda: "spinning" in browser.find(".flame g")[0].get_attribute("aria-label"), "it is zoomed to")
    choice = next(one for one in browser.find("select[aria-label='Which threads'] option") if "spinning" in one.text)
    choice.click()
    browser.click("button.main")
    eventually(lambda: any(re.search("SpinUntil.* 100.0 %", one.get_attribute("aria-label"))
                           for one in browser.find(".flame g")), "all of that thread's samples are in it")
    browser.await_text("libc.so.6", ".card")  # among what it maps


def test_crash_appears_as_it_happens(tarn, browser, agent):
    go(tarn, browser, "crashes")
    browser.await_text("no crash is on record")
    tarn.ctl("exec", "example", "crash", "segv", check=False)
    browser.await_text("SIGSEGV")
    browser.await_text("Crash", "pre")  # the function, in its stack
    browser.picture("crashes")
    go(tarn, browser, "events")
    browser.await_text("crash", ".list")
    browser.picture("events")


def test_health(tarn, browser):
    go(tarn, browser, "health")
    browser.await_text("memory-pressure", "tbody")
    browser.picture("health")


def test_setting_made_in_the_form_is_the_daemons(tarn, browser):
    go(tarn, browser, "settings")
    form = "form[data-setting='memory.begins-at']"
    eventually(lambda: browser.find(form), "the form")
    browser.picture("settings")

    def state(text):
        field = browser.find(f"{form} input")[0]
        field.clear()
        field.send_keys(text, Keys.ENTER)

    state("101%")
    eventually(lambda: browser.text(f"{form} .wrong") != "", "it is refused with a reason")
    state("93%")
    browser.await_text("memory.begins-at is set")
    told = [json.loads(line) for line in tarn.ctl("settings", "--json").stdout.splitlines()]
    assert [one["value"] for one in told if one["name"] == "memory.begins-at"] == [930]
    go(tarn, browser, "overview")
    browser.await_text("setting", ".list")


def test_measurement(tarn, browser):
    go(tarn, browser, "integrity")
    browser.await_text("Nothing has been measured yet")
    browser.picture("integrity")
    for button in browser.find("button"):
        if button.text == "Record what runs now":
            button.click()
    eventually(lambda: "Nothing has been measured yet" not in browser.text(), "it is recorded")
    eventually(lambda: not browser.find("main button:disabled"), "it has been done")
    assert browser.text("main .notice.bad:not([hidden])") == ""
    browser.await_text("files recorded", "pre")


def test_a_processs_name_stays_text(tarn, browser):
    program = tarn.work / "evil"
    shutil.copy(shutil.which("sleep"), program)
    process = subprocess.Popen(
        ["/usr/bin/python3", "-c", "import ctypes, time; ctypes.CDLL(None).prctl(15, b'<img src=x onerr');"
         f"open('/proc/self/comm', 'w').write({EVIL!r}); time.sleep(600)"])
    tarn.running.append(process)
    go(tarn, browser, "processes")
    browser.await_text("tarnd", "tbody")
    browser.find("input[type=search]")[0].send_keys("<img")
    browser.await_text("<img src=x oner", "tbody")
    go(tarn, browser, f"process/{process.pid}")
    browser.await_text("<img src=x oner", "h1")
    assert browser.find("main img") == []


def test_stopped_daemon_is_shown_and_recovers(tarn, browser):
    go(tarn, browser, "overview")
    browser.await_text("live", "#state")
    tarn.stop(tarn.daemon)
    browser.await_text("the daemon is away", "#state")
    browser.await_text("What is shown is from before", "#away")
    browser.picture("away")
    tarn.start_daemon()
    browser.await_text("live", "#state")
    eventually(lambda: not browser.find("#away")[0].is_displayed(), "the notice goes")


def test_phone(tarn, browser):
    browser.driver.set_window_size(390, 844)
    for view in ("overview", "processes", "settings"):
        go(tarn, browser, view)
        browser.await_text({"overview": "cpu0", "processes": "tarnd", "settings": "cpu.begins-at"}[view])
        assert browser.run(WIDER) == [], view
        browser.picture(f"phone-{view}")
    # a plot follows its place a frame later: what it still has from a wide window does not widen the page meanwhile
    go(tarn, browser, "overview")
    browser.await_text("cpu0")
    browser.run("document.querySelectorAll('canvas').forEach(one => one.style.width = '1000px')")
    assert browser.run(WIDER) == []
    browser.driver.set_window_size(1280, 900)


def test_keyboard(tarn, browser):
    go(tarn, browser, "overview")
    browser.await_text("cpu0")
    browser.run("document.querySelector('.skip').focus()")
    seen = []
    for _ in range(12):
        browser.driver.switch_to.active_element.send_keys(Keys.TAB)
        seen.append(browser.run("return document.activeElement.innerText"))
    assert "Processes" in seen and "Settings" in seen
    go(tarn, browser, "overview")


def test_nothing_is_wrong_and_nothing_is_asked_elsewhere(tarn, browser):
    browser.gather()
    refused = [entry for entry in browser.errors if "/api/do/settings" in entry["message"]]  # what was stated wrongly
    assert [entry["message"] for entry in browser.errors if entry not in refused] == []
    assert len(refused) == 1
    asked = [url for url in browser.requests if not url.startswith(("chrome:", "data:"))]  # its own empty page
    assert asked != []
    assert [url for url in asked if not url.startswith(tarn.base)] == []
