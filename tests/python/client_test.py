"""The module's client of a running daemon."""

import json
import os
import socket
import subprocess
import sys
import threading
import time
from pathlib import Path

import pytest
import tarn
from daemon import daemon_in, running_agent, running_daemon
from tarn import frames, stubs, velto

DESCRIPTION = {
    "types": [{"name": "None", "hash": velto.type_hash("None"), "slots": []}],
    "records": [{"type": "None", "members": [], "inside": []}],
    "services": [{"name": "Service", "sentence": "", "methods": [
        {"name": "Nothing", "index": 1, "group": "reading", "long": False, "sentence": "Does nothing.", "example": "",
         "request": 0, "response": None}]}],
}
ROOT = Path(__file__).resolve().parents[2]


@pytest.fixture
def daemon(served):
    with tarn.connect(run_dir=served[1]) as client:
        yield client


def test_methods_answer_with_named_members(daemon):
    assert daemon.call("PidIsOnline", process=os.getpid()) == {"process": os.getpid(), "online": True}
    assert daemon.call("PidIsOnline", uiPid=os.getpid()).online is True
    assert daemon.request("PidIsOnline", {"process": os.getpid()}).process == os.getpid()
    stacks = daemon.call("GetCallStackInfoByTid", process=os.getpid(), thread=threading.get_native_id())
    assert [thread.thread for thread in stacks.threads] == [threading.get_native_id()]
    assert daemon.call("DetectTarndServerOnline") is None


def test_agents_are_asked_themselves(served):
    run_dir = served[1]
    with running_agent(run_dir) as agent, tarn.connect(agent=agent.pid, run_dir=run_dir) as client:
        assert client.ask_runtime("Health")["pid"] == agent.pid
        assert client.call("TarnAgentGetTimerInfo").process == agent.pid


def test_processes_are_listed_busiest_first(daemon):
    processes = daemon.ps()
    own = next(process for process in processes if process.process == os.getpid())
    assert (own.parent, own.threads >= 1, own.resident_bytes > 1 << 20) == (os.getppid(), True, True)
    shares = [process.cpu_permille for process in processes]
    assert shares == sorted(shares, reverse=True)


def change_a_setting(client):
    client.call("SysOvLoadCpuThresholdSet", begins_at="90%", must_last="10s")


def test_events_are_waited_for_and_kept(daemon):
    following = daemon.events(kinds=["setting"], follow=True)
    change_a_setting(daemon)
    first = next(following)
    change_a_setting(daemon)
    second = next(following)
    following.close()
    assert [event.kind for event in (first, second)] == ["setting"] * 2 and second.number > first.number
    assert abs(second.time.timestamp() - time.time()) < 3600 and "SysOvLoadCpuThresholdSet" in second.text
    assert list(daemon.events(kinds=["setting"], first=first.number))[:2] == [first, second]
    assert [event.number >= second.number for event in daemon.events(last=1)] == [True]


def test_events_are_followed_beyond_a_daemon_that_ends(tmp_path):
    with daemon_in(tmp_path), tarn.connect(run_dir=tmp_path) as client:
        change_a_setting(client)
        following = client.events(kinds=["setting"], follow=True)
        first = next(following)
    with daemon_in(tmp_path):
        change_a_setting(client)
        assert next(following).number > first.number
    following.close()
    client.close()


def test_failures_have_the_daemons_reason(daemon):
    with pytest.raises(tarn.CallFailed) as caught:
        daemon.call("SysOvLoadCpuThresholdSet", begins_at="190%", must_last="10s")
    assert str(caught.value) == (
        "SysOvLoadCpuThresholdSet: EINVAL: begins-at (uiValue1) is 1900 ‰, expected 0 to 1000")
    assert (caught.value.errno, caught.value.reply) == (22, {"result": "EINVAL"})
    with pytest.raises(tarn.CallFailed, match="GetProcStatByPid: ESRCH: ") as caught:
        daemon.call("GetProcStatByPid", process=2**22 + 1)
    assert (caught.value.errno, caught.value.reply) == (3, None)


def test_what_does_not_fit_is_not_sent(daemon):
    for method, members, said in [
        ("PidIsOnlin", {}, "PidIsOnlin: the server has no such method; did you mean PidIsOnline?"),
        ("PidIsOnline", {"proces": 1}, "proces: PidIsOnlineInput has no such member; did you mean process?"),
        ("PidIsOnline", {}, "process (uiPid) is missing: The process."),
    ]:
        with pytest.raises(tarn.BadRequest) as caught:
            daemon.call(method, **members)
        assert str(caught.value) == said


def test_there_may_be_no_server(tmp_path):
    with pytest.raises(tarn.Unreachable, match="TarnSysdiagTarnd: ENOENT: .*, expected the socket of a server"):
        tarn.connect(run_dir=tmp_path)


def test_a_server_that_takes_no_connection_is_not_waited_for_longer_than_the_deadline(tmp_path):
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(tmp_path / "TarnSysdiagTarnd.sock"))
        listener.listen(0)
        with tarn.connect(run_dir=tmp_path), pytest.raises(tarn.Unreachable, match="TarnSysdiagTarnd: EAGAIN: "):
            tarn.connect(run_dir=tmp_path, deadline=0.01)


def test_a_client_goes_on_with_a_daemon_that_was_started_anew():
    with running_daemon() as (_, run_dir):
        client = tarn.connect(run_dir=run_dir)
        assert client.ask_runtime("Health")["state"] == "serving"
    with pytest.raises(tarn.Unreachable):
        client.ask_runtime("Health")


@pytest.fixture
def peer(tmp_path, monkeypatch):
    """A client, and the server's end of its connection. What the server answers may be there before the call is, which
    would end a connection that waits for none."""
    monkeypatch.setattr(frames.Connection, "has_ended", lambda _: False)
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(tmp_path / "TarnSysdiagTarnd.sock"))
        listener.listen()
        with tarn.connect(run_dir=tmp_path, deadline=60) as client, listener.accept()[0] as end:
            yield client, end


def answer_to(peer, answer):
    client, end = peer
    end.sendall(answer)
    with pytest.raises(tarn.CallFailed) as caught:
        client.ask_runtime("Health")
    return str(caught.value)


def test_answers_that_are_no_frames_are_refused(peer):
    with_too_long_an_explanation = frames.Frame(frames.REPLY, 1, word20=1)
    assert answer_to(peer, with_too_long_an_explanation.to_bytes()).startswith("Health: EBADMSG: found 54 52 50 43 ")


def test_answers_to_other_calls_are_refused(peer):
    said = answer_to(peer, frames.Frame(frames.REPLY, 7).to_bytes())
    assert said == "Health: EBADMSG: found an answer to the call 7, expected one to 1"


def test_answers_that_are_too_long_are_refused(peer):
    header = frames.HEADER.pack(b"TRPC", 1, frames.REPLY, 1, 0, 0, 0, 0, frames.LONGEST_REPLY + 1, 0, b"", b"")
    assert answer_to(peer, header).endswith("found an answer of 4194305 bytes, expected at most 4194304")


def test_a_connection_that_is_refused_says_why(peer):
    frame = frames.Frame(frames.ERROR, 0, code=16, payload=b"connection refused: too many")
    assert answer_to(peer, frame.to_bytes()) == "Health: EBUSY: connection refused: too many"


def test_a_connection_that_ends_ends_the_call(peer):
    peer[1].shutdown(socket.SHUT_WR)
    with pytest.raises(tarn.Unreachable, match="Health: ECONNRESET: the connection: it ended"):
        peer[0].ask_runtime("Health")


def test_a_call_without_an_answer_ends_at_the_server_too(peer):
    client, end = peer
    end.sendall(frames.Frame(frames.REPLY, 1, payload=json.dumps(DESCRIPTION).encode()).to_bytes())
    assert client.interface.find("Nothing").request.members == []
    with pytest.raises(tarn.TimedOut, match="Nothing: ETIMEDOUT: no answer came in time"):
        client.call("Nothing", deadline=0.01)
    end.recv(frames.HEADER.size)  # of what asked for the description
    request = frames.HEADER.unpack_from(end.recv(1 << 16))
    assert (request[5], request[11].rstrip(b"\0"), end.recv(1)) == (10, b"Nothing", b"")


def test_descriptions_that_are_not_understood_are_refused(peer):
    client, end = peer
    other = DESCRIPTION | {"types": [{"name": "None", "hash": 1, "slots": []}]}
    end.sendall(frames.Frame(frames.REPLY, 1, payload=json.dumps(other).encode()).to_bytes())
    with pytest.raises(tarn.Error, match="the server's description of itself is not understood: .*type None"):
        client.interface


@pytest.mark.skipif(os.geteuid() != 0, reason="another user's socket takes root")
def test_a_socket_of_another_user_is_not_used(tmp_path):
    listens = """import os, socket, sys
end = socket.socket(socket.AF_UNIX)
end.bind(sys.argv[1])
os.setuid(65534)
end.listen()
print(flush=True)
input()"""
    program = [sys.executable, "-c", listens, tmp_path / "TarnSysdiagTarnd.sock"]
    with subprocess.Popen(program, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as other:
        other.stdout.readline()
        held = f"EPERM: the socket .* is held by process {other.pid} of user 65534, expected root, "
        with pytest.raises(tarn.Unreachable, match=held):
            tarn.connect(run_dir=tmp_path)
        other.communicate(b"\n")


def test_the_stubs_are_what_the_daemon_says_of_itself(daemon):
    written = (ROOT / "python" / "tarn" / "methods.pyi").read_text(encoding="utf-8")
    assert stubs.stub_of(daemon.interface) == written, "./dev interface writes the stubs anew"
    assert max(map(len, written.splitlines())) <= stubs.COLUMNS
