"""The examples of docs/python.md hold, and are of the types that the stubs have."""

import doctest
import os
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
DOCUMENT = ROOT / "docs" / "python.md"
WRONG = """import tarn
daemon = tarn.connect()
daemon.call("PidIsOnline", proces=1)
daemon.call("PidIsOnline", process=1).onlin
daemon.call("AppMemInfo", process=1, view="unitz")
"""


def test_examples_of_the_document_hold(served, monkeypatch):
    monkeypatch.setenv("TARN_RUN_DIR", str(served[1]))
    found = doctest.testfile(str(DOCUMENT), module_relative=False, encoding="utf-8")
    assert found.attempted > 10 and found.failed == 0


def checked(tmp_path, program):
    """What the type checker says of it."""
    (tmp_path / "program.py").write_text(program, encoding="utf-8")
    command = [sys.executable, "-m", "mypy", "--strict", "--no-error-summary", "--hide-error-context", "--cache-dir",
               os.devnull, "program.py"]
    return subprocess.run(command, cwd=tmp_path, capture_output=True, text=True).stdout


def test_examples_of_the_document_have_the_types_of_the_stubs(tmp_path):
    examples = doctest.script_from_examples(DOCUMENT.read_text(encoding="utf-8"))
    said = checked(tmp_path, examples.replace('daemon.call("PidIsOnline", proces=1)', ""))
    assert said == ""


def test_what_the_daemon_has_not_is_found_by_the_type_checker(tmp_path):
    said = checked(tmp_path, WRONG)
    assert [line.split(":")[1] for line in said.splitlines() if " error: " in line] == ["3", "4", "5"], said
