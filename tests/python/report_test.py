"""bench/report.py: ratios that are worse are found, unless one run has them well, and the table is written."""

import importlib.util
import json
from pathlib import Path

import pytest

SOURCE = Path(__file__).resolve().parents[2] / "bench" / "report.py"
spec = importlib.util.spec_from_file_location("report", SOURCE)
report = importlib.util.module_from_spec(spec)
spec.loader.exec_module(report)

USUAL = {"raw": 10.0, "runtime": 12.0, "sd-bus": 18.0, "grpc": 90.0}


def make_run(directory, velto=20.0, **times):
    """A run of one message and one size."""
    directory.mkdir()
    codec = [{"run_name": f"{system}/Result/encode", "name": "x", "run_type": "iteration", "cpu_time": time}
             for system, time in [("velto", velto + 5), ("velto", velto), ("floor", 10.0), ("sent", 8.0)]]
    codec.append({"run_name": "velto/Result/encode", "name": "x_mean", "run_type": "aggregate", "cpu_time": 1.0})
    trips = [{"system": system, "bytes": 64, "callers": 1, "p50": time, "p99": 2 * time, "rate": 1e6 / time,
              "cpu": time + 1} for system, time in (USUAL | times).items()]
    fleet = [{"system": system, "bytes": 64, "callers": 1, "p50": time, "p99": 2 * time, "rate": 1e6 / time}
             for system, time in [("nats", 100.0), ("local", 10.0), ("fleet", 130.0)]]
    for name, rows in [("codec", codec), ("roundtrip", trips), ("fleet", fleet)]:
        (directory / f"{name}.json").write_text(json.dumps({"benchmarks": rows}), encoding="utf-8")
    return directory


@pytest.fixture
def expected(tmp_path):
    report.record(tmp_path / "expected.json", [make_run(tmp_path / "usual")])
    return tmp_path / "expected.json"


def test_a_ratio_is_of_the_fastest_repetitions_and_of_one_run(tmp_path):
    ratios = report.ratios_of(make_run(tmp_path / "run"))
    assert ratios["velto/Result/encode : floor"] == 2.0
    assert ratios["sent/Result/encode : floor"] == 0.8
    assert ratios["runtime/64 : raw"] == 1.2
    assert ratios["runtime/64 : sd-bus"] == 12 / 18
    assert len(ratios) == 4


def test_the_median_of_runs_is_recorded(tmp_path):
    runs = [make_run(tmp_path / str(velto), velto=velto) for velto in (10.0, 40.0, 30.0)]
    report.record(tmp_path / "expected.json", runs)
    assert report.read(tmp_path / "expected.json")["ratios"]["velto/Result/encode : floor"] == 3.0


def test_what_is_as_recorded_passes(tmp_path, expected):
    assert report.check(expected, [make_run(tmp_path / "run", velto=22.9)]) == 0


def test_what_is_worse_in_each_run_fails(tmp_path, expected, capsys):
    runs = [make_run(tmp_path / str(i), velto=23.1 + i) for i in range(3)]
    assert report.check(expected, runs) == 1
    said = capsys.readouterr().out.splitlines()
    assert said == ["velto/Result/encode : floor: 2.310, 2.410, 2.510, expected at most 2.300, 1.15 times 2.000",
                    f"{len(report.ratios_of(runs[0]))} ratios compared in 3 runs, 1 wrong"]


def test_what_one_run_has_well_passes(tmp_path, expected):
    runs = [make_run(tmp_path / str(i), velto=velto, runtime=time)
            for i, (velto, time) in enumerate([(40.0, 12.0), (40.0, 30.0), (20.0, 30.0)])]
    assert report.check(expected, runs) == 0


def test_what_is_measured_and_not_recorded_or_the_other_way_round_is_told(tmp_path, expected, capsys):
    document = report.read(expected)
    document["ratios"]["velto/Gone/encode : floor"] = document["ratios"].pop("velto/Result/encode : floor")
    expected.write_text(json.dumps(document), encoding="utf-8")
    assert report.check(expected, [make_run(tmp_path / "run")]) == 1
    said = capsys.readouterr().out
    assert "velto/Gone/encode : floor: not measured, expected 2.000\n" in said
    assert "velto/Result/encode : floor: 2.000, and none is recorded; ./dev bench --record does\n" in said


def test_the_tables_take_the_places_of_the_old_ones(tmp_path):
    document = tmp_path / "performance.md"
    around = ("before\n\n<!-- round trips: ./dev bench writes this -->\n{}\n<!-- end of round trips -->\n\nbetween\n\n"
              "<!-- calls of a fleet: ./dev bench writes this -->\n{}\n<!-- end of calls of a fleet -->\n\nbehind\n")
    document.write_text(around.format("\nold\n", "\nold\n"), encoding="utf-8")
    report.write(make_run(tmp_path / "run"), document)
    once = document.read_text(encoding="utf-8")
    trips, fleet = (report.table(tmp_path / "run", name) for name in ("round trips", "calls of a fleet"))
    assert once == around.format(f"\n{trips}\n", f"\n{fleet}\n")
    assert "| 64 | 1 | runtime | 12.0 | 24.0 | 83333 | 13.0 | 1.20 x raw | at most 1.25 | met |" in trips
    assert "| 64 | 1 | sd-bus | 18.0 | 36.0 | 55556 | 19.0 | 1.50 x runtime | at least 1 | met |" in trips
    assert "| 64 | 1 | nats | 100.0 | 200.0 | 10000 |  |  |  |" in fleet
    assert "| 64 | 1 | fleet | 130.0 | 260.0 | 7692 | local + 1.20 x nats | at most 1.3 | met |" in fleet
    report.write(tmp_path / "run", document)
    assert document.read_text(encoding="utf-8") == once


@pytest.mark.parametrize("content, wrong", [
    (None, "No such file"),
    ("[", "expected JSON of the benchmark"),
    ("[]", "no rows; expected an object"),
    ('{"benchmarks": []}', "no rows; expected an object"),
])
def test_a_file_that_is_no_run_is_refused(tmp_path, content, wrong):
    run = make_run(tmp_path / "run")
    (run / "roundtrip.json").unlink()
    if content is not None:
        (run / "roundtrip.json").write_text(content, encoding="utf-8")
    with pytest.raises(report.Mistake, match=f"roundtrip.json: .*{wrong}"):
        report.table(run, "round trips")


def test_a_document_without_a_place_for_the_table_is_refused(tmp_path):
    document = tmp_path / "performance.md"
    document.write_text("no place\n", encoding="utf-8")
    with pytest.raises(report.Mistake, match="performance.md: 0 places for the table; expected one"):
        report.write(make_run(tmp_path / "run"), document)
