"""Who may look, from where, and what is refused: by HTTP alone."""

import contextlib
import http.client
import json
import os
import re
import socket
import ssl
import stat
import subprocess
import threading

import pytest
from kit import Programs, eventually


@pytest.fixture(scope="module")
def tarn():
    programs = Programs()
    programs.start_daemon()
    programs.start_web()
    yield programs
    programs.end()


def test_takes_the_token(tarn):
    for path in ("/", "/main.js", "/chart.js", "/api/about", "/api/live?topics=cpu", "/metrics", "/api/collect"):
        assert tarn.request(path, headers={})[0] == 401, path
        assert tarn.request(path, headers={"Authorization": "Bearer " + "0" * 32})[0] == 401, path
    status, _, text = tarn.request("/", headers={})
    assert status == 401 and "token" in text and "<form" in text
    assert tarn.request(f"/?token={tarn.token[:-1]}", headers={})[0] == 403
    assert tarn.request(f"/api/about?token={tarn.token}", headers={})[0] == 401  # the first visit only


def test_first_visit_gets_a_cookie(tarn):
    status, headers, _ = tarn.request(f"/?token={tarn.token}", headers={})
    assert (status, headers["Location"]) == (303, "/")
    cookie, *attributes = headers["Set-Cookie"].split("; ")
    assert {"HttpOnly", "SameSite=Strict", "Path=/"} <= set(attributes)
    assert tarn.token not in cookie
    assert tarn.request("/api/about", headers={"Cookie": f"other=1; {cookie}"})[0] == 200
    assert tarn.request("/api/about", headers={"Cookie": cookie[:-1]})[0] == 401


def test_answers_to_its_own_name_only(tarn):
    bearer = {"Authorization": f"Bearer {tarn.token}"}
    assert tarn.request("/", headers=bearer | {"Host": f"localhost:{tarn.port}"})[0] == 200
    for host in ("evil.example", f"evil.example:{tarn.port}", "127.0.0.1", f"127.0.0.1:{tarn.port + 1}"):
        assert tarn.request("/", headers=bearer | {"Host": host})[0] == 421, host


def test_is_asked_by_its_own_pages_only(tarn):
    cookie = {"Cookie": tarn.request(f"/?token={tarn.token}", headers={})[1]["Set-Cookie"].split(";")[0]}
    own = f"http://127.0.0.1:{tarn.port}"
    assert tarn.request("/api/about", headers=cookie | {"Origin": own})[0] == 200
    for origin in ("http://evil.example", "null", f"https://127.0.0.1:{tarn.port}", f"http://localhost:{tarn.port}"):
        assert tarn.request("/api/about", headers=cookie | {"Origin": origin})[0] == 403, origin
    change = ("/api/do/settings-reset", "POST")
    assert tarn.request(*change, headers=cookie)[0] == 403  # a browser always says where a change comes from
    status, _, text = tarn.request(*change, headers=cookie | {"Origin": own})
    assert status == 403 and "--allow settings" in text


def test_headers_of_every_answer(tarn):
    for path in ("/", "/style.css", "/api/about", "/nothing"):
        headers = tarn.request(path)[1]
        policy = headers["Content-Security-Policy"]
        assert "default-src 'none'" in policy and "unsafe" not in policy and "frame-ancestors 'none'" in policy
        assert headers["X-Content-Type-Options"] == "nosniff"
        assert headers["Cache-Control"] == "no-store"


def test_page_has_nothing_inline_and_nothing_from_elsewhere(tarn):
    text = tarn.request("/")[2]
    assert "<script>" not in text and "style=" not in text and "onclick" not in text
    sources = re.findall(r'(?:src|href)="([^"]+)"', text)
    assert sources and all(source.startswith(("/", "#")) for source in sources)


@pytest.mark.parametrize("path, status, text", [
    ("/nothing", 404, "nothing is here"),
    ("/../etc/passwd", 404, "nothing is here"),
    ("/%2e%2e/etc/passwd", 404, "nothing is here"),
    ("/api/ask/nothing", 404, "no such question"),
    ("/api/ask/maps", 400, "expected a number"),
    ("/api/ask/maps?process=1;id", 400, "expected a number"),
    ("/api/ask/maps?process=--help", 400, "expected a number"),
    ("/api/ask/memory?process=4194305", 502, "4194305"),
    ("/api/live?topics=nothing", 400, "no such topic"),
    ("/api/live?topics=threads:x", 400, "no such topic"),
    ("/api/ask/crashes?device=press-1", 400, "no fleet here"),
])
def test_mistakes_are_told(tarn, path, status, text):
    found = tarn.request(path)
    assert found[0] == status, found
    assert text in json.loads(found[2])["error"]


def test_changes_take_post_and_leave(tarn):
    assert tarn.request("/api/do/settings")[0] == 405
    for method in ("PUT", "DELETE", "OPTIONS", "PATCH"):
        assert tarn.request("/api/about", method)[0] == 405, method
    for action in ("settings", "settings-reset", "measure", "measure-record", "measure-cancel"):
        assert tarn.request(f"/api/do/{action}", "POST", body='{"words": ["cpu.begins-at=1%"]}')[0] == 403, action
    assert tarn.request("/api/about", "POST", body="x" * 100_000)[0] == 413


def test_words_are_no_options(tarn):
    with other(tarn, "--allow", "settings") as allowed:
        for body in ('{"words": ["--run-dir=/tmp"]}', '{"words": [""]}', '{"words": 1}', "[", ""):
            status, _, text = allowed.request("/api/do/settings", "POST", body=body)
            assert status == 400 and "NAME=VALUE" in text, body
        status, _, text = allowed.request("/api/do/settings", "POST", body='{"words": ["cpu.begin-at=1%"]}')
        assert status == 400 and "did you mean cpu.begins-at" in text
        assert allowed.request("/api/do/measure", "POST")[0] == 403  # another group


@contextlib.contextmanager
def other(tarn, *options):
    """Another tarn-web before the same daemon."""
    programs = Programs()
    programs.run_dir = tarn.run_dir
    programs.environment = tarn.environment
    try:
        programs.start_web(*options)
        yield programs
    finally:
        programs.end()


def start(*options):
    """A start that fails: its exit code and what it says."""
    done = subprocess.run([os.environ["TARN_WEB"], *options], capture_output=True, text=True, timeout=60)
    return done.returncode, done.stderr


def test_beyond_loopback_takes_tls():
    code, said = start("--listen", "0.0.0.0:0")
    assert code == 1 and "--tls-certificate" in said
    assert start("--listen", "8010")[0] == 2
    assert start("--listen", "127.0.0.1:99999")[0] == 2
    assert start("--allow", "everything")[0] == 2
    code, said = start("--listen", "127.0.0.1:0", "--tls-certificate", "/nothing.pem", "--tls-key", "/nothing.key")
    assert code == 1 and "/nothing.pem" in said


def test_token_in_a_file_stays(tarn):
    file = tarn.work / "token"
    with other(tarn, "--token-file", file) as first:
        token = file.read_text().strip()
        assert stat.S_IMODE(file.stat().st_mode) == 0o600 and len(token) == 32
        assert token not in first.address  # which the service manager logs
    with other(tarn, "--token-file", file) as second:
        assert second.request("/api/about", headers={"Authorization": f"Bearer {token}"})[0] == 200


def test_tls(tarn):
    key, certificate = tarn.work / "key.pem", tarn.work / "certificate.pem"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                    "-keyout", key, "-out", certificate, "-subj", "/CN=localhost", "-days", "2"],
                   check=True, capture_output=True)
    with other(tarn, "--tls-certificate", certificate, "--tls-key", key, "--name", "device.example") as served:
        assert served.base.startswith("https://")
        context = ssl.create_default_context(cafile=str(certificate))
        connection = http.client.HTTPSConnection("localhost", served.port, timeout=60, context=context)
        connection.request("GET", f"/?token={served.token}", headers={"Host": f"device.example:{served.port}"})
        answer = connection.getresponse()
        assert answer.status == 303 and "Secure" in answer.getheader("Set-Cookie")


def stream(tarn, path):
    connection = http.client.HTTPConnection("127.0.0.1", tarn.port, timeout=60)
    connection.request("GET", path, headers={"Authorization": f"Bearer {tarn.token}"})
    return connection, connection.getresponse()


def test_many_viewers_are_one_reader_and_too_many_are_refused(tarn):
    def calls():
        """Of the method, as the daemon counts them."""
        services = json.loads(tarn.ctl("stats", "--json").stdout)["services"]
        return sum(method["calls"] for service in services for method in service["methods"]
                   if method["name"] == "MultiCpuUsageQuery")

    viewers, counts = [], [0] * 128

    def read(at, answer):
        with contextlib.suppress(OSError, AttributeError):  # it is closed meanwhile
            for line in answer:
                counts[at] += line.startswith(b"data:")

    try:
        for at in range(128):
            viewers.append(stream(tarn, "/api/live?topics=cpus"))
            assert viewers[at][1].status == 200
            threading.Thread(target=read, args=(at, viewers[at][1]), daemon=True).start()
        connection, answer = stream(tarn, "/api/live?topics=cpus")
        assert answer.status == 503 and "128 look already" in answer.read().decode()
        before, seen = calls(), list(counts)
        eventually(lambda: all(now >= then + 3 for now, then in zip(counts, seen)), "three answers for each viewer")
        asked, told = calls() - before, max(now - then for now, then in zip(counts, seen))
        assert told - 1 <= asked <= told + 2  # whoever looks
    finally:
        for connection, _ in viewers:
            connection.sock.shutdown(socket.SHUT_RDWR)


def test_metrics_are_accepted(tarn):
    status, headers, text = tarn.request("/metrics")
    assert status == 200 and headers["Content-Type"].startswith("text/plain; version=0.0.4")
    assert "tarn_cpu_busy_ratio" in text
    checked = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, text=True)
    assert checked.returncode == 0, checked.stderr


def test_archive_is_downloaded(tarn):
    connection, answer = stream(tarn, "/api/collect")
    assert answer.status == 200 and "attachment" in answer.getheader("Content-Disposition")
    (tarn.work / "all.tar.gz").write_bytes(answer.read())
    names = subprocess.run(["tar", "tzf", tarn.work / "all.tar.gz"], check=True, capture_output=True, text=True).stdout
    assert "tarn/processes.json" in names


def test_without_a_daemon(tarn):
    tarn.stop(tarn.daemon)
    status, _, text = tarn.request("/api/ask/crashes")
    assert status == 503 and "not connected" in json.loads(text)["error"]
    assert tarn.request("/api/collect")[0] == 503
    assert tarn.request("/metrics")[0] == 502
    tarn.start_daemon()
    assert tarn.request("/api/ask/crashes")[0] == 200
