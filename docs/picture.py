#!/usr/bin/env python3
"""Draws what README shows: tarnctl's top and stack on a terminal, while an application spins.

    docs/picture.py BUILD_DIR FILE.svg

Drawn by root, it shows no processes of the machine: the daemon and the application have a namespace of their own.
"""

import fcntl
import html
import os
import re
import struct
import subprocess
import sys
import tempfile
import termios
import time

COLUMNS, LINES = 100, 21

ALONE = ["unshare", "--pid", "--fork", "--kill-child", "--mount-proc"]

FONT, LINE, CHARACTER, MARGIN = 14, 19, 8.4, 14  # pixels
COLOURS = {"33": "#d7a94b", "31": "#e5707a"}
GROUND, TEXT, PROMPT = "#1c2128", "#cdd3da", "#7d8894"


def on_terminal(command, environment):
    """What a command writes to a terminal."""
    ours, theirs = os.openpty()
    fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", LINES, COLUMNS, 0, 0))
    process = subprocess.Popen(command, stdin=theirs, stdout=theirs, stderr=theirs, env=environment,
                               start_new_session=True)
    os.close(theirs)
    written = b""
    while True:
        try:
            part = os.read(ours, 65536)
        except OSError:  # nobody has the other end any more
            part = b""
        if not part:
            break
        written += part
    os.close(ours)
    if process.wait() != 0:
        sys.exit(f"picture: {' '.join(command)} failed: {written.decode()}")
    return written.decode()


def lines_of(written):
    """The lines that are on the screen at the end, with bold and colours only."""
    frame = written.split("\033[H")[-1].split("\033[?25h")[0]
    frame = re.sub(r"\033\[[0-9;?]*[A-LN-Za-ln-z]", "", frame.replace("\r\n", "\n").rstrip("\n"))
    return [line.split("\r")[-1].rstrip() for line in frame.split("\n")]  # a bar of progress is overwritten


def drawn_line(line, row):
    """A line as SVG: as wide as its characters are many, whatever the font."""
    parts, style, width = [], "", 0
    for number, part in enumerate(re.split(r"\033\[([0-9;]*)m", line)):
        if number % 2 == 1:
            codes = part.split(";")
            style = ' font-weight="bold"' if "1" in codes else ""
            style += "".join(f' fill="{COLOURS[code]}"' for code in codes if code in COLOURS)
        elif part:
            width += len(part)
            parts.append(f"<tspan{style}>{html.escape(part)}</tspan>" if style else html.escape(part))
    colour = PROMPT if line.startswith("$ ") else TEXT
    return (f'<text x="{MARGIN}" y="{MARGIN + FONT + row * LINE}" fill="{colour}" xml:space="preserve" '
            f'textLength="{width * CHARACTER:.0f}">{"".join(parts)}</text>')


def drawn(lines):
    width, height = round(COLUMNS * CHARACTER) + 2 * MARGIN, len(lines) * LINE + 2 * MARGIN
    rows = [drawn_line(line, row) for row, line in enumerate(lines) if line]
    return "\n".join([f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
                      f'font-family="ui-monospace, DejaVu Sans Mono, Menlo, Consolas, monospace" font-size="{FONT}">',
                      "<title>tarnctl top, and tarnctl stack of the process that it shows</title>",
                      f'<rect width="100%" height="100%" rx="8" fill="{GROUND}"/>', *rows, "</svg>", ""])


def tarnctl(*words):
    return subprocess.run(["tarnctl", *words], capture_output=True, text=True)


def wait_for(ask, what):
    """What the function returns as soon as that is something."""
    end = time.monotonic() + 60
    while not (found := ask()):
        if time.monotonic() > end:
            sys.exit(f"picture: this did not come true within a minute: {what}")
        time.sleep(0.1)
    return found


# As top lists the thread once it has spun for a while: "    48   99.2 %  spinning  3 (tarn-agent)  0  1.8 s".
SPINNING = re.compile(r"^ *(\d+) +(?:[3-9]\d|1\d\d)\.\d %  spinning ", re.MULTILINE)


def spinning_thread():
    found = SPINNING.search(tarnctl("top", "--batch").stdout)
    return found and found[1]


def top_with_spinning_thread(environment):
    lines = lines_of(on_terminal(["tarnctl", "top", "-n", "1"], environment))
    return lines if any(SPINNING.match(line) for line in lines) else None


def look(directory, environment):
    """The lines of both commands, while a thread of the application spins."""
    with open(directory + "/log", "w") as log:
        daemon = subprocess.Popen(["tarnd", "--log-dir", directory, "--state-dir", directory + "/state"], stderr=log)
        agent = subprocess.Popen(["tarn-agent", "--name", "example"], stderr=log)
        try:
            wait_for(lambda: tarnctl("exec", "example", "loop", "120").returncode == 0, "the application spins")
            thread = wait_for(spinning_thread, "the daemon sees which thread spins")
            stack = ["tarnctl", "stack", "example", "-t", thread, "--samples", "20", "--every", "20ms"]
            top = wait_for(lambda: top_with_spinning_thread(environment), "top has room for that thread")
            return ["$ tarnctl top", *top, "", "$ " + " ".join(stack), *lines_of(on_terminal(stack, environment))]
        finally:
            for process in (agent, daemon):
                process.terminate()
                process.wait()


def main():
    inside, (build, output) = sys.argv[1] == "--inside", sys.argv[-2:]
    if not inside and subprocess.run([*ALONE, "true"], stderr=subprocess.DEVNULL).returncode == 0:
        os.execvp(ALONE[0], [*ALONE, sys.executable, __file__, "--inside", build, output])
    with tempfile.TemporaryDirectory() as directory:
        os.environ.update(TARN_RUN_DIR=directory + "/run", TARN_FAULT_DIR=directory,
                          PATH=os.path.realpath(build) + ":" + os.environ["PATH"])
        picture = drawn(look(directory, dict(os.environ, TERM="xterm", TARN_PAGER="cat", NO_COLOR="")))
    with open(output, "w") as file:
        file.write(picture)


if __name__ == "__main__":
    main()
