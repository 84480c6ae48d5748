"""What the benchmark measured, from its JSON: the tables of calls, and ratios compared with recorded ones.

    report.py table RUN                 prints the tables
    report.py write RUN DOCUMENT        writes them into a document, between their markers
    report.py record EXPECTED RUN...    writes the ratios of runs down, the median of each
    report.py check EXPECTED RUN...     fails when one is worse in each of the runs

A run is a directory with codec.json, roundtrip.json and, for the tables, fleet.json. A ratio is how many times as long the first takes as the second
in the same run, so less is better.
"""

import json
import re
import statistics
import sys
from pathlib import Path

WORSE = 1.15  # times the ratio that is recorded
# The first in the time of the second, of the same message and operation.
CODEC_RATIOS = [("velto", "floor"), ("sent", "floor")]
# The same of calls of one size by one caller, by the median: with more callers, and against gRPC, whose threads poll, a
# ratio changes by more with what else the machine does.
CALL_RATIOS = [("runtime", "raw"), ("runtime", "sd-bus")]

# What the round trips are to reach: the runtime at most so many times the floor, a peer at least so many the runtime.
FLOOR_GOAL = 1.25
PEER_GOALS = {"sd-bus": 1, "grpc": 5}
# A call over a fleet's server is to take at most what a local one does, and so many times what the server's own does.
FLEET_GOAL = 1.3


class Mistake(Exception):
    """What is wrong with a file, and what was expected."""


def read(path):
    try:
        return json.loads(Path(path).read_text(encoding="utf-8"))
    except (OSError, ValueError) as error:
        raise Mistake(f"{path}: {error}; expected JSON of the benchmark") from error


def rows_of(path):
    document = read(path)
    if not isinstance(document, dict) or not document.get("benchmarks"):
        raise Mistake(f'{path}: no rows; expected an object with an array "benchmarks" that is not empty')
    return document["benchmarks"]


def codec_times(run):
    """The fastest repetition of each row: what disturbs one only adds to it."""
    times = {}
    for row in rows_of(Path(run) / "codec.json"):
        if row.get("run_type", "iteration") == "iteration":
            name = row.get("run_name", row["name"])
            times[name] = min(row["cpu_time"], times.get(name, row["cpu_time"]))
    return times


def round_trips(run, file="roundtrip.json"):
    return {(row["bytes"], row["callers"], row["system"]): row for row in rows_of(Path(run) / file)}


def ratios_of(run):
    ratios = {}
    times = codec_times(run)
    for first, second in CODEC_RATIOS:
        for name, time in times.items():
            system, _, rest = name.partition("/")
            if system == first and f"{second}/{rest}" in times:
                ratios[f"{name} : {second}"] = time / times[f"{second}/{rest}"]
    trips = round_trips(run)
    for first, second in CALL_RATIOS:
        for (size, callers, system), row in trips.items():
            if system == first and callers == 1 and (size, 1, second) in trips:
                ratios[f"{first}/{size} : {second}"] = row["p50"] / trips[size, 1, second]["p50"]
    if not ratios:
        raise Mistake(f"{run}: no two rows that are compared; expected those of {CODEC_RATIOS + CALL_RATIOS}")
    return ratios


def record(expected, runs):
    measured = [ratios_of(run) for run in runs]
    names = sorted(set.intersection(*(set(ratios) for ratios in measured)))
    ratios = {name: round(statistics.median(run[name] for run in measured), 3) for name in names}
    Path(expected).write_text(json.dumps({"ratios": ratios}, indent=1) + "\n", encoding="utf-8")
    print(f"{expected}: {len(ratios)} ratios")


def failures_of(expected, measured):
    """A ratio that something else has spoiled is better in another run."""
    failures = []
    for name, wanted in expected.items():
        found = [ratios[name] for ratios in measured if name in ratios]
        if not found:
            failures.append(f"{name}: not measured, expected {wanted:.3f}")
        elif min(found) > WORSE * wanted:
            seen = ", ".join(f"{ratio:.3f}" for ratio in found)
            failures.append(f"{name}: {seen}, expected at most {WORSE * wanted:.3f}, {WORSE} times {wanted:.3f}")
    for name in sorted(set(measured[0]) - set(expected)):
        failures.append(f"{name}: {measured[0][name]:.3f}, and none is recorded; ./dev bench --record does")
    return failures


def check(expected, runs):
    recorded = read(expected).get("ratios")
    if not recorded:
        raise Mistake(f'{expected}: no ratios; expected an object with "ratios", as "record" writes it')
    failures = failures_of(recorded, [ratios_of(run) for run in runs])
    for failure in failures:
        print(failure)
    print(f"{len(recorded)} ratios compared in {len(runs)} runs, {len(failures)} wrong")
    return 1 if failures else 0


def met(condition):
    return "met" if condition else "MISSED"


def round_trip_row(trips, size, callers, system):
    row = trips[size, callers, system]
    time, runtime = row["p50"], trips[size, callers, "runtime"]["p50"]
    if system == "raw":
        verdict = " |  | "
    elif system == "runtime":
        ratio = time / trips[size, callers, "raw"]["p50"]
        verdict = f"{ratio:.2f} x raw | at most {FLOOR_GOAL} | {met(ratio <= FLOOR_GOAL)}"
    else:
        ratio, goal = time / runtime, PEER_GOALS[system]
        verdict = f"{ratio:.2f} x runtime | at least {goal} | {met(ratio >= goal)}"
    return (f"| {size} | {callers} | {system} | {time:.1f} | {row['p99']:.1f} | {row['rate']:.0f} | {row['cpu']:.1f} | "
            f"{verdict} |")


def fleet_row(trips, size, callers, system):
    row = trips[size, callers, system]
    verdict = " |  | "
    if system == "fleet":
        ratio = (row["p50"] - trips[size, callers, "local"]["p50"]) / trips[size, callers, "nats"]["p50"]
        verdict = f"local + {ratio:.2f} x nats | at most {FLEET_GOAL} | {met(ratio <= FLEET_GOAL)}"
    return f"| {size} | {callers} | {system} | {row['p50']:.1f} | {row['p99']:.1f} | {row['rate']:.0f} | {verdict} |"


# By what they are called in a document: the file, a row of it, and the columns between callers' system and ratio.
TABLES = {"round trips": ("roundtrip.json", round_trip_row, ["p50", "p99", "calls/s", "cpu us"]),
          "calls of a fleet": ("fleet.json", fleet_row, ["p50", "p99", "calls/s"])}


def table(run, name):
    file, row, figures = TABLES[name]
    trips = round_trips(run, file)
    columns = ["bytes", "callers", "system", *figures, "ratio", "goal"]
    head = [f"| {' | '.join(columns)} | |", "|---" * (len(columns) + 1) + "|"]
    return "\n".join(head + [row(trips, *key) for key in trips])


def write(run, document):
    text = Path(document).read_text(encoding="utf-8")
    for name in TABLES:
        begin, end = f"<!-- {name}: ./dev bench writes this -->\n", f"\n<!-- end of {name} -->"
        written = f"{begin}\n{table(run, name)}\n{end}"
        # A function, since in a text a backslash would mean something.
        text, places = re.subn(re.escape(begin) + ".*?" + re.escape(end), lambda _, written=written: written, text, flags=re.DOTALL)
        if places != 1:
            raise Mistake(f"{document}: {places} places for the table; expected one between the lines "
                          f"{begin.strip()!r} and {end.strip()!r}")
    Path(document).write_text(text, encoding="utf-8")


def main(arguments):
    command, rest = (arguments + [""])[0], arguments[1:]
    if command == "table" and len(rest) == 1:
        print("\n\n".join(table(rest[0], name) for name in TABLES))
    elif command == "write" and len(rest) == 2:
        write(*rest)
    elif command == "record" and len(rest) >= 2:
        record(rest[0], rest[1:])
    elif command == "check" and len(rest) >= 2:
        return check(rest[0], rest[1:])
    else:
        raise Mistake(f"found {arguments}, expected one of\n\n{__doc__}")
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except Mistake as mistake:
        print(f"report.py: {mistake}", file=sys.stderr)
        sys.exit(2)
