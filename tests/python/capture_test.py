"""What tarnctl captures is told by tshark with the dissector that tarnctl writes, and can be replayed. TARNCTL is its
program."""

import json
import os
import pathlib
import signal
import subprocess

import pytest
import tarn

TARNCTL = os.environ["TARNCTL"]


def tarnctl(run_dir, *words):
    return subprocess.run([TARNCTL, "--run-dir", run_dir, *words], capture_output=True, text=True)


class Capture:
    """Runs while the block does."""

    def __init__(self, run_dir, file, *options):
        self.command = [TARNCTL, "--run-dir", run_dir, "capture", "-o", file, *options]

    def __enter__(self):
        self.process = subprocess.Popen(self.command, stderr=subprocess.PIPE, text=True)
        assert self.process.stderr.readline() == "tarnctl: capturing until it is interrupted\n"
        return self

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGINT)
        self.said = self.process.stderr.read()
        assert self.process.wait() == 0, self.said


@pytest.fixture(scope="module")
def show(tmp_path_factory):
    """What tshark tells of the frames of a file: of each the fields, as lists of values."""
    scratch = tmp_path_factory.mktemp("dissector")
    dissector = scratch / "tarn.lua"
    dissector.write_text(subprocess.run([TARNCTL, "dissector"], capture_output=True, text=True, check=True).stdout)

    def shown(file, *fields):
        names = [word for field in fields for word in ("-e", field)]
        command = ["tshark", "-r", file, "-X", f"lua_script:{dissector}", "-T", "json", *names]
        ran = subprocess.run(command, capture_output=True, text=True, env=os.environ | {"HOME": str(scratch)})
        assert ran.returncode == 0 and "Lua" not in ran.stderr, ran.stderr
        return [packet["_source"]["layers"] for packet in json.loads(ran.stdout)]

    return shown


@pytest.fixture
def daemon(served):
    """A client that has asked for the interface, so that only calls are captured."""
    with tarn.connect(run_dir=served[1]) as client:
        assert client.interface
        yield client


def test_calls_are_shown_with_the_names_of_their_members(served, daemon, show, tmp_path):
    file = tmp_path / "calls.pcapng"
    with Capture(served[1], file) as capture:
        daemon.call("PidIsOnline", process=os.getpid())
        stacks = daemon.call("GetCallStackInfoByTid", process=os.getpid())
        with pytest.raises(tarn.CallFailed):
            daemon.call("SysOvLoadCpuThresholdSet", begins_at="190%", must_last="10s")
        with pytest.raises(tarn.CallFailed):
            daemon.call("GetProcStatByPid", process=2**22 + 1)
    assert capture.said == "tarnctl: 8 frames captured, 0 dropped\n"
    frames = show(file, "frame.interface_name", "frame.packet_flags_direction", "tarn.kind", "tarn.method", "tarn.call",
                  "tarn.status", "tarn.explanation", "tarn.PidIsOnlineInput.process", "tarn.PidIsOnlineOuput.online",
                  "tarn.CallStackThreadInfo.thread", "tarn.CallStackThreadInfo.name",
                  "tarn.SysOvLoadCpuThreshold.begins_at", "tarn.OperResult.result", "tarn.malformed")
    names = {frame["frame.interface_name"][0] for frame in frames}
    assert len(names) == 1 and names.pop().startswith(f"process {os.getpid()}, user {os.geteuid()}, connection ")
    assert [frame["tarn.kind"] for frame in frames] == [["1"], ["3"]] * 3 + [["1"], ["4"]]
    methods = ["PidIsOnline", "GetCallStackInfoByTid", "SysOvLoadCpuThresholdSet", "GetProcStatByPid"]
    assert [frame["tarn.method"] for frame in frames] == [[name] for name in methods for _ in range(2)]
    assert [frame.get("tarn.call") for frame in frames[1::2]] == [["1"], ["3"], ["5"], ["7"]]
    online, stack, threshold, failure = frames[1::2]
    assert frames[0]["tarn.PidIsOnlineInput.process"] == [str(os.getpid())]
    assert online["tarn.PidIsOnlineOuput.online"] == ["1"]
    assert stack["tarn.CallStackThreadInfo.name"] == [thread.name for thread in stacks.threads]
    assert stack["tarn.CallStackThreadInfo.thread"] == [str(thread.thread) for thread in stacks.threads]
    assert frames[4]["tarn.SysOvLoadCpuThreshold.begins_at"] == ["1900"]
    assert threshold["tarn.OperResult.result"] == ["22"]
    assert threshold["tarn.explanation"] == ["begins-at (uiValue1) is 1900 \u2030, expected 0 to 1000"]
    assert failure["tarn.status"] == ["3"]
    assert not any("tarn.malformed" in frame for frame in frames)


def test_captures_are_of_some_calls_or_of_the_last_frames(served, daemon, show, tmp_path):
    some, last, nobodys, ours = (tmp_path / name for name in ("some", "last", "nobodys", "ours"))
    name = pathlib.Path("/proc/self/comm").read_text().strip()
    with (Capture(served[1], some, "--method", "GetProcStatByPid"), Capture(served[1], last, "--last", "3"),
          Capture(served[1], nobodys, "--process", "1"), Capture(served[1], ours, "--process", name)):
        for _ in range(2):
            daemon.call("PidIsOnline", process=1)
            daemon.call("GetProcStatByPid", process=os.getpid())
    assert [frame["tarn.method"] for frame in show(some, "tarn.method")] == [["GetProcStatByPid"]] * 4
    methods = [frame.get("tarn.method") for frame in show(last, "tarn.method")]
    assert methods == [None, ["GetProcStatByPid"], ["GetProcStatByPid"]], "the first is an answer"
    assert show(nobodys, "tarn.method") == []
    assert {tuple(frame["frame.interface_name"])[0].split(",")[0] for frame in show(ours, "frame.interface_name")} == {
        f"process {os.getpid()}"}


def test_requests_are_sent_again(served, daemon, tmp_path):
    file = tmp_path / "calls.pcapng"
    with Capture(served[1], file):
        daemon.call("PidIsOnline", process=1)
        daemon.call("ResetMaxCpuUseInfo")
        with pytest.raises(tarn.CallFailed):
            daemon.call("GetProcStatByPid", process=2**22 + 1)
    replayed = tarnctl(served[1], "replay", file)
    assert (replayed.returncode, replayed.stderr) == (0, "")
    assert [line.split() for line in replayed.stdout.splitlines()] == [
        ["METHOD", "CAPTURED", "NOW"],
        ["PidIsOnline", "PidIsOnlineOuput", "PidIsOnlineOuput"],
        ["ResetMaxCpuUseInfo", "ResetMaxCpuResult", *"not sent: changes something (--all)".split()],
        ["GetProcStatByPid", "ESRCH", "ESRCH"],
    ]
    everything = tarnctl(served[1], "replay", "--all", file)
    assert everything.stdout.splitlines()[2].split() == ["ResetMaxCpuUseInfo", *["ResetMaxCpuResult"] * 2]


def test_answers_of_another_type_are_told(served, daemon, tmp_path):
    file = tmp_path / "calls.pcapng"
    with subprocess.Popen(["cat"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL) as other, Capture(served[1], file):
        daemon.call("GetProcStatByPid", process=other.pid)
        other.communicate()
    replayed = tarnctl(served[1], "replay", file)
    assert replayed.stdout.splitlines()[1].split() == ["GetProcStatByPid", "ProcessStatusOutput", "ESRCH"]
    assert (replayed.returncode, replayed.stderr) == (5, "tarnctl: 1 of 1 answers are of another type than captured\n")


def test_files_that_are_no_capture_are_refused(served, tmp_path):
    file = tmp_path / "calls.pcapng"
    with Capture(served[1], file):
        pass
    whole = file.read_bytes()
    assert len(whole) == 28
    for content, said in [
        (b"", "byte 0: found something else, expected a little-endian pcapng file, as tarnctl capture writes it"),
        (whole[:27], "byte 0: found a block of 28 bytes, expected a multiple of 4 up to 27"),
        (whole + b"\6\0\0\0" + b"\x09\0\0\0" * 6,
         "byte 28: found a block of 9 bytes, expected a multiple of 4 up to 28"),
    ]:
        file.write_bytes(content)
        refused = tarnctl(served[1], "replay", file)
        assert (refused.returncode, refused.stderr) == (6, f"tarnctl: {said}\n")
