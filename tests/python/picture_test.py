"""README's picture can be drawn again. TARND is the daemon, beside the other programs."""

import os
import pathlib
import subprocess
import sys
import xml.etree.ElementTree

SOURCE = pathlib.Path(__file__).parents[2]
COLUMNS = 100


def lines_of(file):
    drawn = xml.etree.ElementTree.parse(file).getroot()
    return ["".join(text.itertext()) for text in drawn.iter("{http://www.w3.org/2000/svg}text")]


def check(lines):
    assert lines[0] == "$ tarnctl top"
    assert lines[1].startswith("CPU busy ")
    assert any(" spinning " in line for line in lines), lines
    stack = [number for number, line in enumerate(lines) if line.startswith("$ tarnctl stack example -t ")]
    assert lines[stack[0] + 1] == "100.0 %  spinning"
    assert any("SpinUntil" in line for line in lines[stack[0]:]), lines
    assert all(len(line) <= COLUMNS and line.isprintable() for line in lines)


def test_what_is_drawn_now(tmp_path):
    programs = os.path.dirname(os.environ["TARND"])
    file = tmp_path / "picture.svg"
    ran = subprocess.run([sys.executable, SOURCE / "docs/picture.py", programs, file], capture_output=True, text=True)
    assert (ran.returncode, ran.stdout, ran.stderr) == (0, "", "")
    check(lines_of(file))


def test_what_readme_shows():
    assert "](docs/tarnctl.svg)" in (SOURCE / "README.md").read_text()
    check(lines_of(SOURCE / "docs/tarnctl.svg"))
