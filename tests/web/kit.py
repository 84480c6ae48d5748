"""A daemon, an agent's application and tarn-web, and a browser that looks at it."""

import contextlib
import http.client
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

from selenium import webdriver
from selenium.webdriver.common.by import By

SOURCES = pathlib.Path(__file__).resolve().parents[2]
WAIT = 60  # seconds for what is a matter of moments on an idle machine


def eventually(true, what, wait=WAIT):
    """The first true value that it returns."""
    end = time.monotonic() + wait
    while True:
        value = true()
        if value:
            return value
        assert time.monotonic() < end, f"this did not come true: {what}"
        time.sleep(0.05)


class Programs:
    """Those of a test, in a directory of their own; they end with it."""

    def __init__(self):
        self.work = pathlib.Path(tempfile.mkdtemp(prefix="tarn-web-"))
        self.run_dir = self.work / "run"
        (self.work / "logs").mkdir()
        self.running = []
        self.environment = dict(os.environ, TARN_RUN_DIR=str(self.run_dir))

    def start(self, *words, **options):
        process = subprocess.Popen(
            [str(word) for word in words], env=self.environment, stdout=subprocess.PIPE, text=True,
            stderr=open(self.work / (pathlib.Path(words[0]).name + ".log"), "a"), **options)
        self.running.append(process)
        return process

    def stop(self, process):
        process.terminate()
        process.wait(WAIT)

    def start_daemon(self):
        self.daemon = self.start(os.environ["TARND"], "--run-dir", self.run_dir, "--log-dir", self.work / "logs",
                                 "--state-dir", self.work / "state", "--sample-interval", "250")
        eventually(lambda: self.ctl("call", "PidIsOnline", "process=1", check=False).returncode == 0, "the daemon answers")

    def start_web(self, *options):
        self.web = self.start(os.environ["TARN_WEB"], "--listen", "127.0.0.1:0", "--page", SOURCES / "host/web/page",
                              "--run-dir", self.run_dir, *options)
        self.address = self.web.stdout.readline().strip()  # with the token
        self.token = self.address.rpartition("=")[2]
        self.base = self.address.split("?")[0].split(" ")[0]
        self.port = int(self.base.rpartition(":")[2].strip("/"))

    def start_agent(self, name="example"):
        self.agent = self.start(os.environ["TARN_AGENT"], "--name", name)
        eventually(lambda: self.ctl("exec", name, "help", check=False).returncode == 0, "the agent is there")
        return self.agent

    def ctl(self, *words, check=True):
        return subprocess.run([os.environ["TARNCTL"], *map(str, words)], env=self.environment, capture_output=True,
                              text=True, check=check)

    def request(self, path, method="GET", headers=None, body=None):
        """The status, the headers and the text of an answer; with the token, unless headers are given."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=WAIT)
        with contextlib.closing(connection):
            given = {"Authorization": f"Bearer {self.token}"} if headers is None else headers
            connection.request(method, path, body=body, headers=given)
            answer = connection.getresponse()
            return answer.status, dict(answer.getheaders()), answer.read().decode()

    def ask(self, path):
        return json.loads(self.request(path)[2])

    def end(self):
        for process in reversed(self.running):
            process.kill()
            process.wait()
        shutil.rmtree(self.work)


class Browser:
    """Chromium without a window."""

    def __init__(self, width=1280, height=900):
        options = webdriver.ChromeOptions()
        self.profile = tempfile.mkdtemp(prefix="tarn-browser-")
        for option in ("headless=new", "no-sandbox", "disable-gpu", "disable-quic", "no-first-run",
                       "disable-background-networking", "disable-component-update", "disable-sync",
                       "disable-dev-shm-usage", f"user-data-dir={self.profile}", f"window-size={width},{height}"):
            options.add_argument(f"--{option}")
        options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
        service = webdriver.chrome.service.Service("/usr/bin/chromedriver")
        self.driver = webdriver.Chrome(service=service, options=options)
        self.errors, self.requests = [], []

    def end(self):
        self.driver.quit()
        shutil.rmtree(self.profile, ignore_errors=True)

    def open(self, address):
        self.driver.get(address)

    def find(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def text(self, selector="main"):
        return self.driver.execute_script(
            "return [...document.querySelectorAll(arguments[0])].map(one => one.innerText).join('\\n')", selector)

    def await_text(self, text, selector="main", wait=WAIT):
        eventually(lambda: text in self.text(selector), f"{selector} has {text!r}", wait)

    def click(self, selector):
        eventually(lambda: self.find(selector), selector)[0].click()

    def run(self, script, *values):
        return self.driver.execute_script(script, *values)

    def theme(self, name):
        for _ in range(3):
            if self.run("return localStorage.getItem('theme')") == name:
                return
            self.click("#theme")

    def picture(self, name):
        """Of the whole page, in both themes; kept where TARN_PICTURES says."""
        directory = pathlib.Path(os.environ["TARN_PICTURES"])
        directory.mkdir(parents=True, exist_ok=True)
        for theme in ("light", "dark"):
            self.theme(theme)
            self.driver.save_screenshot(str(directory / f"{name}-{theme}.png"))

    def gather(self):
        """What the console has and what was asked for since the start."""
        self.errors += [entry for entry in self.driver.get_log("browser") if entry["level"] in ("SEVERE", "WARNING")]
        for entry in self.driver.get_log("performance"):
            message = json.loads(entry["message"])["message"]
            if message["method"] == "Network.requestWillBeSent":
                self.requests.append(message["params"]["request"]["url"])


def main_log(programs):
    """For whoever looks why a test failed."""
    for log in programs.work.glob("*.log"):
        print(log.name, log.read_text()[-2000:], file=sys.stderr)
