"""Tests of the comparison's parts that need no other engine: descriptions, files, notes, tables.

A small graph with every kind of node stands for the networks; where ONNX Runtime and the engine's
compiled module are there, its files must give the same outputs in both.
"""

from __future__ import annotations

import json
import os
import sys
from collections import Counter
from pathlib import Path

import numpy as np
import pytest

sys.path.insert(0, str(Path(__file__).parent))

import measure
import report
from graph import Graph
from ncnn_file import write_ncnn
from networks import NETWORKS
from results import FIRST, Cell, Result, Results

CELL = Cell("alexnet", 1, 1)


def every_kind() -> Graph:
    net = Graph("every kind", 9)
    x = net.conv("data", 4, 3, pad=1)
    y = net.conv(x, 8, 3, pad=2, dilation=2, groups=2)
    y = net.lrn(net.max_pool(net.concat(x, y), 3, 1, 1), alpha=0.5)
    y = net.add(net.conv(y, 6, 1, relu=False), net.conv(y, 6, 3, pad=1))
    small = net.conv(net.max_pool(y, 2, 2), 10, 3, stride=2, pad=1, spread=1.0, relu=False)
    large = net.conv(net.normalize(y, 3.0), 5, 1, relu=False)
    net.softmax(net.rows([large, small], 5))
    net.softmax(net.dense(net.dense(net.mean(y), 7), 3, relu=False))
    return net


# Multiply-adds in millions and parameters in thousands that the papers' tables add up to.
@pytest.mark.parametrize(
    ("name", "millions", "thousands", "shapes"),
    [
        ("alexnet", 724, 60965, [(1000, 1, 1)]),
        ("googlenet", 1582, 6998, [(1000, 1, 1)]),
        ("resnet50", 4089, 25530, [(1000, 1, 1)]),
        ("squeezenet", 349, 1235, [(1000, 1, 1)]),
        ("mobilenet", 569, 4221, [(1000, 1, 1)]),
        ("vgg16", 15470, 138358, [(1000, 1, 1)]),
        ("ssd300", 31374, 26285, [(8732, 4), (8732, 21)]),
    ],
)
def test_networks_have_the_size_of_their_papers(name, millions, thousands, shapes):
    graph = NETWORKS[name][1]()
    parameters = sum(np.prod(shape) + shape[0] for shape, _ in graph.weights.values())
    assert graph.multiply_adds / 1e6 == pytest.approx(millions, rel=1e-2)
    assert parameters / 1e3 == pytest.approx(thousands, rel=1e-2)
    assert [graph.shapes[output] for output in graph.outputs] == shapes


def test_weights_are_the_same_for_the_same_seed_alone():
    graph = every_kind()
    first, again, other = (graph.draw_weights(seed) for seed in (1, 1, 2))
    assert all(np.array_equal(first[name], again[name]) for name in first)
    assert not any(np.array_equal(first[name], other[name]) for name in first)


def test_the_spread_of_weights_is_that_of_their_sums():
    graph = Graph("one layer", 32)
    name = graph.conv("data", 4096, 3, spread=1.5)
    assert graph.draw_weights(3)[name + ".weight"].var() == pytest.approx(1.5 / 27, rel=0.02)


def test_ncnn_tensors_are_written_and_read_once(tmp_path):
    graph = every_kind()
    write_ncnn(graph, graph.draw_weights(4), tmp_path / "a.param", tmp_path / "a.bin")
    magic, counts, *lines = (tmp_path / "a.param").read_text().splitlines()
    written, read = Counter(), Counter()
    for line in lines:
        _, _, inputs, outputs, *names = line.split()
        read.update(names[: int(inputs)])
        written.update(names[int(inputs) : int(inputs) + int(outputs)])
    assert magic == "7767517"
    assert counts == f"{len(lines)} {len(written)}"
    assert set(written.values()) == {1} and set(read.values()) == {1}
    assert set(written) - set(read) == set(graph.outputs)
    # One flag before each weight, and the factor of the normalisation.
    floats = sum(np.prod(shape) + shape[0] + 1 for shape, _ in graph.weights.values()) + 1
    assert (tmp_path / "a.bin").stat().st_size == 4 * floats


@pytest.mark.parametrize("batch", [1, 2])
def test_model_file_and_onnx_give_the_same_outputs(tmp_path, batch):
    if not os.environ.get("RAVU_NEEDS_CONVERTER"):
        pytest.importorskip("onnxruntime")
        pytest.importorskip("ravu._engine", reason="the compiled module is not built")
    import onnxruntime
    from onnx_file import write_onnx
    from ravu import Network
    from ravu_file import write_ravu

    graph = every_kind()
    weights = graph.draw_weights(5)
    write_onnx(graph, weights, batch, tmp_path / "a.onnx")
    write_ravu(graph, weights, tmp_path / "a.ravu")
    images = np.random.default_rng(6).standard_normal((batch, 3, 9, 9)).astype(np.float32)
    session = onnxruntime.InferenceSession(str(tmp_path / "a.onnx"))
    wanted = session.run(None, {"data": images})
    with Network(tmp_path / "a.ravu", batch=batch) as network:
        found = network.run(images.transpose(0, 2, 3, 1))
    assert len(found) == len(wanted) == 2
    for ours, theirs in zip(found, wanted):
        np.testing.assert_allclose(np.ravel(ours), np.ravel(theirs), atol=measure.TOLERANCE_LRN)


def test_differences_count_in_parts_of_the_largest_value(tmp_path):
    np.savez(tmp_path / "a.npz", np.float32([0, -4]), np.float32([1]))
    np.savez(tmp_path / "b.npz", np.float32([1, -4]), np.float32([1]))
    np.savez(tmp_path / "short.npz", np.float32([0, -4]))
    np.savez(tmp_path / "wrong.npz", np.float32([0, np.nan]), np.float32([1]))
    reference = tmp_path / "a.npz"
    assert measure.difference(tmp_path / "b.npz", reference) == 0.25
    assert measure.difference(tmp_path / "short.npz", reference) == np.inf
    assert measure.difference(tmp_path / "wrong.npz", reference) == np.inf


def test_only_networks_with_lrn_may_differ_more():
    assert measure.tolerance("googlenet") > measure.tolerance("vgg16")


def result(engine, *rounds, cell=CELL, first=(2.0, 2.0), **more):
    return Result(cell, engine, rounds=rounds, first=first, **more)


def test_what_was_measured_is_not_measured_again(tmp_path):
    results = Results(tmp_path / "results.jsonl")
    engines = [FIRST, "ncnn", "torch"]
    assert results.missing(CELL, engines) == engines
    results.append([result(FIRST, 2.0), result("ncnn", 1.0)])
    # The first engine runs again beside the one that lacks.
    assert results.missing(CELL, engines) == [FIRST, "torch"]
    results.append([result(FIRST, 2.0), Result(CELL, "torch", error="it ended by itself")])
    assert results.missing(CELL, engines) == []
    assert results.missing(Cell("alexnet", 8, 1), engines) == engines


def test_results_come_back_from_the_file(tmp_path):
    path = tmp_path / "results.jsonl"
    stored = result("ncnn", 1.0, 3.0, limits={"gflops": 100.0}, version="1")
    Results(path).append([result("ncnn", 9.0), stored])
    assert Results(path).get(CELL, "ncnn") == stored


def test_a_line_cut_short_was_not_measured(tmp_path):
    path = tmp_path / "results.jsonl"
    Results(path).append([result("ncnn", 1.0), result("torch", 1.0)])
    path.write_bytes(path.read_bytes()[:-20])
    results = Results(path)
    assert results.missing(CELL, ["ncnn", "torch"]) == ["torch"]
    results.append([result("torch", 4.0)])
    assert Results(path).get(CELL, "torch") == result("torch", 4.0)


def test_minimum_median_and_spread_are_those_of_the_rounds():
    of_three = result("ncnn", 4.0, 3.0, 5.0)
    assert (of_three.minimum, of_three.median, of_three.spread) == (3.0, 4.0, 0.5)


def limits(value):
    return {"gflops": value, "gigabytes_per_second": 10.0, "vector_floats": 8}


def small_results(tmp_path):
    results = Results(tmp_path / "results.jsonl")
    own = result(FIRST, 0.004, 0.006, first=(0.004, 0.006), limits=limits(724.0), version="1a")
    # ncnn was faster in absolute terms, but in a run in which everything was: it lost there.
    ncnn = result("ncnn", 0.003, 0.003, first=(0.002, 0.002), version="2b")
    openvino = result("openvino", 0.005, 0.005, first=(0.004, 0.006), difference=2e-6)
    torch = Result(CELL, "torch", error="ImportError: there is none")
    results.append([own, ncnn, openvino, torch])
    return results


def test_the_fastest_peer_is_that_of_the_same_run(tmp_path):
    results = small_results(tmp_path)
    assert report.fastest_peer(results, CELL).engine == "openvino"
    assert report.comparison(results, CELL) == ["0.80", "1.00", "40 %"]


def test_a_peer_of_a_run_in_which_the_first_engine_failed_is_compared_with_nothing(tmp_path):
    results = Results(tmp_path / "results.jsonl")
    results.append([Result(CELL, FIRST, error="out of memory"), result("ncnn", 1.0, first=())])
    results.append([result(FIRST, 2.0)])
    assert report.fastest_peer(results, CELL) is None
    assert report.comparison(results, CELL) == ["-", "-", "-"]


def test_rows_show_every_engine_and_the_share_of_the_peak(tmp_path):
    row, *others = report.time_rows(small_results(tmp_path), batch=1, threads=1)
    assert row[:7] == ["AlexNet", "4.00", "-", "5.00", "**3.00**", "-", "-"]
    # 2 x 724 million operations in 4 ms are 362 GF/s.
    assert row[-1] == "50 %"
    assert [other[1:] for other in others] == [["-"] * 10] * 6


def test_rows_of_another_commit_are_named(tmp_path):
    results = Results(tmp_path / "results.jsonl")
    for network, version in (("alexnet", "1a"), ("vgg16", "2b"), ("ssd300", "1a")):
        results.append([result(FIRST, 1.0, cell=Cell(network, 1, 1), version=version)])
    assert report.commits(results, 1, 1) == "ravu at 1a, VGG16 at 2b"


def test_engines_without_figures_are_named_with_the_reason(tmp_path):
    text = report.figures(small_results(tmp_path))
    assert "No figures of torch (ImportError: there is none): AlexNet x 1, 1 thread." in text
    assert "AlexNet 2e-06 (OpenVINO)" in text
    assert "Not measured yet: AlexNet x 1, 1 thread; AlexNet x 1, 2 threads; " in text


def test_only_the_text_between_the_marks_is_renewed():
    document = "before\n" + report.BEGIN + "old\n" + report.END + "after\n"
    renewed = report.renewed(document, "new\n")
    assert renewed == "before\n" + report.BEGIN + "\nnew\n\n" + report.END + "after\n"
    assert report.renewed(renewed, "new\n") == renewed


ECHO = """
import json, sys
print(json.dumps({"opened": 1.5, "version": sys.argv[1]}), flush=True)
for line in sys.stdin:
    print(json.dumps({"seconds": [0.5] * json.loads(line)["runs"]}), flush=True)
print(json.dumps({"peak_kib": 7}), flush=True)
"""


def child(tmp_path, monkeypatch, program):
    (tmp_path / "child.py").write_text(program)
    monkeypatch.setattr(measure, "__file__", str(tmp_path / "measure.py"))
    monkeypatch.setattr(measure, "python_of", lambda engine: sys.executable)
    return measure.Child("ncnn", tmp_path, CELL, tmp_path / "outputs.npz")


def test_a_child_answers_every_order_and_says_last_what_it_held(tmp_path, monkeypatch):
    process = child(tmp_path, monkeypatch, ECHO)
    assert process.opened == {"opened": 1.5, "version": "ncnn"}
    assert process.run(2) == [0.5, 0.5]
    assert process.finish() == {"peak_kib": 7}


def test_a_child_that_cannot_run_says_why(tmp_path, monkeypatch):
    program = f"print({json.dumps(json.dumps({'error': 'no such operator'}))})"
    with pytest.raises(measure.ChildFailed, match="no such operator"):
        child(tmp_path, monkeypatch, program)


def test_a_child_that_dies_gives_no_figures(tmp_path, monkeypatch):
    with pytest.raises(measure.ChildFailed, match="the process ended"):
        child(tmp_path, monkeypatch, "import os; os.abort()")


def test_who_fails_in_a_turn_leaves_the_comparison(tmp_path, monkeypatch):
    monkeypatch.setattr(measure, "LEAST_ROUNDS", 2)
    monkeypatch.setattr(measure, "ENOUGH", 0.0)
    monkeypatch.setattr(measure, "TURN", 2.0)
    monkeypatch.setattr(measure, "machine_limits", lambda threads: limits(100.0 * threads))
    monkeypatch.setattr(measure, "busy_seconds", lambda: 0.0)
    asked = []

    class Steady:
        def cpu_seconds(self):
            return 0.0

        def run(self, runs):
            asked.append(runs)
            return [0.5] * runs

    class Failing(Steady):
        def run(self, runs):
            raise measure.ChildFailed("the process ended by itself")

        def kill(self):
            asked.append("killed")

    cell = Cell("alexnet", 8, 2)
    results = {engine: Result(cell, engine) for engine in ("ravu", "ncnn")}
    found = measure.take_turns({"ravu": Steady(), "ncnn": Failing()}, results)
    assert found == limits(200.0)
    assert asked == [1, "killed", 4, 4]
    assert results["ravu"].rounds == (0.5 / 8, 0.5 / 8)
    assert results["ncnn"].error == "the process ended by itself"


def test_who_dies_at_the_end_leaves_the_others_figures(tmp_path, monkeypatch):
    last = 'print(json.dumps({"peak'
    program = "import sys, numpy\nnumpy.savez(sys.argv[6], [1.0])\n"
    program += ECHO.replace(last, "if sys.argv[1] != 'ncnn': " + last)
    (tmp_path / "child.py").write_text(program)
    monkeypatch.setattr(measure, "__file__", str(tmp_path / "measure.py"))
    monkeypatch.setattr(measure, "python_of", lambda engine: sys.executable)
    monkeypatch.setattr(measure, "ENOUGH", 0.0)
    monkeypatch.setattr(measure, "TURN", 0.5)
    monkeypatch.setattr(measure, "RETRIES", 0.0)
    monkeypatch.setattr(measure, "machine_limits", lambda threads: limits(100.0))
    own, peer = measure.measure(tmp_path, CELL, [FIRST, "ncnn"])
    assert own.rounds and own.peak_kib == 7 and not own.error
    assert peer.error == "the process ended by itself" and peer.rounds == ()


@pytest.mark.parametrize("arguments", [["--only", "foo"], ["--batch", "4"], ["--batch", "1,3"]])
def test_cells_that_were_not_prepared_are_misuse(tmp_path, monkeypatch, arguments):
    monkeypatch.setattr("sys.argv", ["measure.py", str(tmp_path), *arguments])
    with pytest.raises(SystemExit) as ended:
        measure.main()
    assert ended.value.code == 2
    assert not (tmp_path / "results.jsonl").exists()


def test_files_of_other_sources_are_written_anew(tmp_path, monkeypatch):
    pytest.importorskip("onnx")
    import prepare

    written = []
    monkeypatch.setattr(prepare, "NETWORKS", {"small": ("Small", every_kind)})
    for name in ("write_ravu", "write_onnx", "write_ncnn"):
        monkeypatch.setattr(prepare, name, lambda *_, name=name: written.append(name))
    monkeypatch.setattr("sys.argv", ["prepare.py", str(tmp_path)])
    prepare.main()
    assert written.count("write_ravu") == 1
    prepare.main()
    assert written.count("write_ravu") == 1
    monkeypatch.setattr(prepare, "sources", lambda: "others")
    prepare.main()
    assert written.count("write_ravu") == 2


@pytest.mark.parametrize(("others", "turns"), [([0.0], 1), ([0.1, 0.1, 0.0], 3)])
def test_a_disturbed_turn_is_repeated(monkeypatch, others, turns):
    """The clock stands still, so a turn in which others did anything is a disturbed one."""
    busy = {"own": 0.0, "others": 0.0}

    class Working:
        def cpu_seconds(self):
            return busy["own"]

        def run(self, runs):
            busy["own"] += 1.0
            busy["others"] += others.pop(0)
            return [busy["own"]] * runs

    monkeypatch.setattr(measure, "busy_seconds", lambda: busy["own"] + busy["others"])
    monkeypatch.setattr(measure.time, "monotonic", lambda: 0.0)
    assert measure.quiet_turn(Working(), 2) == [turns, turns]


def test_a_disturbed_turn_counts_when_no_time_is_left(monkeypatch):
    class Slow:
        def cpu_seconds(self):
            return 0.0

        def run(self, runs):
            return [measure.RETRIES] * runs

    clock = iter(range(0, 100, 2))
    monkeypatch.setattr(measure, "busy_seconds", lambda: float(next(clock)))
    monkeypatch.setattr(measure.time, "monotonic", lambda: float(next(clock)))
    assert measure.quiet_turn(Slow(), 3) == [measure.RETRIES] * 3


def test_processor_time_is_counted(tmp_path, monkeypatch):
    working = "import time\nwhile time.process_time() < 0.3: pass\n" + ECHO
    before = measure.busy_seconds()
    process = child(tmp_path, monkeypatch, working)
    assert 0.2 < process.cpu_seconds() < 2
    assert measure.busy_seconds() - before >= 0.2
    process.finish()
