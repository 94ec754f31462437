"""Times the engines side by side, cell by cell: network x batch x threads.

usage: measure.py FOLDER [--only NETWORK,...] [--batch N,...] [--threads N,...] [--seconds S]

FOLDER holds what prepare.py wrote; results.jsonl in it collects the figures, and cells that are
there are not measured again. After --seconds no further cell is started: starting anew goes on.

In a cell every engine has a process of its own (child.py) that stays while the cell is measured.
Each round gives each engine a turn of at least TURN seconds, beginning with another one each time,
and asks the machine for its limits; so whatever else the machine does falls on all alike. The
first round only counts how many runs a turn takes. Short cells get more rounds. Short turns that
other programs disturbed are repeated.
"""

from __future__ import annotations

import argparse
import json
import math
import os
import select
import subprocess
import sys
import tempfile
import time
from collections.abc import Sequence
from dataclasses import replace
from pathlib import Path
from statistics import median
from typing import Any

import numpy as np
from engines import ENGINES
from networks import BATCHES, NETWORKS
from results import FIRST, Cell, Result, Results

ROOT = Path(__file__).parents[2]
BUILD = ROOT / "build" / "release"
LEAST_ROUNDS, MOST_ROUNDS = 5, 15
ENOUGH = 12.0
"""Seconds after which no further round than the least is begun."""

TURN = 0.3
QUIET = 0.1
"""A turn is disturbed when other programs, or other machines on the same cores, take more than this
part of one core."""
RETRIES = 0.6
"""Seconds within which a disturbed turn is repeated."""

PATIENCE = 300.0

REFERENCE = "onnxruntime"
TOLERANCE = 1e-3
TOLERANCE_LRN = 5e-3
"""The engine's power in a local response normalisation is an approximation."""

SYSTEM_PYTHON, OWN_PYTHON = "/usr/bin/python3", str(ROOT / "build/bench_venv/bin/python3")
SYSTEM_ENGINES = {"ravu", "torch"}
"""Built for Debian's numpy, which the packages from elsewhere are too new for."""


def python_of(engine: str) -> str:
    return SYSTEM_PYTHON if engine in SYSTEM_ENGINES else OWN_PYTHON


class ChildFailed(Exception):
    """An engine that gives no figures; the text says why."""


class Child:
    """One engine's process. Raises `ChildFailed` when the engine cannot run the network."""

    def __init__(self, engine: str, folder: Path, cell: Cell, outputs: Path) -> None:
        self.engine, self.cell, self.outputs = engine, cell, outputs
        arguments = [cell.network, cell.batch, cell.threads, outputs]
        self.process = subprocess.Popen(
            [python_of(engine), Path(__file__).with_name("child.py"), engine, folder]
            + [str(argument) for argument in arguments],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            text=True,
            env=environment(cell.threads),
        )
        self.opened = self._answer()

    def run(self, runs: int) -> list[float]:
        """Seconds of each run."""
        assert self.process.stdin is not None
        try:
            self.process.stdin.write(json.dumps({"runs": runs}) + "\n")
            self.process.stdin.flush()
        except BrokenPipeError:
            pass  # no answer comes, which says the same
        return self._answer()["seconds"]

    def finish(self) -> dict[str, Any]:
        """End the process; what it says last."""
        assert self.process.stdin is not None
        self.process.stdin.close()
        last = self._answer()
        self.process.wait()
        return last

    def cpu_seconds(self) -> float:
        """Processor time of all its threads so far."""
        stat = Path(f"/proc/{self.process.pid}/stat").read_text(encoding="utf-8")
        fields = stat.rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def kill(self) -> None:
        self.process.kill()
        self.process.wait()

    def _answer(self) -> dict[str, Any]:
        assert self.process.stdout is not None
        ready, _, _ = select.select([self.process.stdout], [], [], PATIENCE)
        line = self.process.stdout.readline() if ready else ""
        if not line:
            self.kill()
            status = self.process.returncode
            raise ChildFailed("the process ended by itself" if ready else f"no answer, {status}")
        answer = json.loads(line)
        if "error" in answer:
            self.process.wait()
            raise ChildFailed(answer["error"])
        return answer


def environment(threads: int) -> dict[str, str]:
    path = os.pathsep.join([str(BUILD / "python"), str(Path(__file__).parent)])
    counts = {name: str(threads) for name in ("OMP_NUM_THREADS", "OPENBLAS_NUM_THREADS")}
    return {**os.environ, **counts, "PYTHONPATH": path}


def busy_seconds() -> float:
    """Time that all cores were not idle so far, with what other machines took from them."""
    with open("/proc/stat", encoding="ascii") as file:
        user, nice, system, _, _, *interrupts = file.readline().split()[1:9]
    ticks = sum(int(field) for field in (user, nice, system, *interrupts))
    return ticks / os.sysconf("SC_CLK_TCK")


def quiet_turn(child: Child, runs: int) -> list[float]:
    """Seconds of each run, of the first turn that was not disturbed or of the last one tried."""
    deadline = time.monotonic() + RETRIES
    while True:
        busy, own, start = busy_seconds(), child.cpu_seconds(), time.monotonic()
        seconds = child.run(runs)
        end = time.monotonic()
        others = busy_seconds() - busy - (child.cpu_seconds() - own)
        if others <= QUIET * (end - start) or end > deadline:
            return seconds


def difference(outputs: Path, reference: Path) -> float:
    """The largest difference, in parts of the tensor's largest value."""
    found, wanted = np.load(outputs), np.load(reference)
    if found.files != wanted.files:
        return math.inf
    worst = 0.0
    for name in wanted.files:
        if found[name].shape != wanted[name].shape or not np.isfinite(found[name]).all():
            return math.inf
        largest = np.abs(wanted[name]).max()
        worst = max(worst, float(np.abs(found[name] - wanted[name]).max() / largest))
    return worst


def tolerance(network: str) -> float:
    kinds = {node.kind for node in NETWORKS[network][1]().nodes}
    return TOLERANCE_LRN if "lrn" in kinds else TOLERANCE


def machine_limits(threads: int) -> dict[str, float]:
    program = BUILD / "bench" / "ravu_bench_machine"
    pinned = ["taskset", "-c", ",".join(str(core) for core in range(threads))]
    done = subprocess.run([*pinned, program, str(threads)], capture_output=True, check=True)
    return json.loads(done.stdout)


def measure(folder: Path, cell: Cell, engines: Sequence[str]) -> list[Result]:
    """One result for each engine, in this order."""
    results = {engine: Result(cell, engine) for engine in engines}
    children: dict[str, Child] = {}
    with tempfile.TemporaryDirectory() as name:
        for engine in engines:
            try:
                child = Child(engine, folder, cell, Path(name) / f"{engine}.npz")
            except ChildFailed as failed:
                results[engine] = replace(results[engine], error=str(failed))
            else:
                children[engine] = child
        compare_outputs(cell, children, results)
    try:
        limits = take_turns(children, results)
        for engine, child in children.items():
            try:
                last = child.finish()
            except ChildFailed as failed:
                results[engine] = replace(results[engine], error=str(failed), rounds=())
            else:
                results[engine] = replace(results[engine], **last, limits=limits)
    finally:
        for child in children.values():
            child.kill()
    first = results[FIRST].rounds
    return [replace(results[engine], first=first) for engine in engines]


def compare_outputs(cell: Cell, children: dict[str, Child], results: dict[str, Result]) -> None:
    """Take note of versions and differences; who differs too much leaves the comparison."""
    reference = children.get(REFERENCE, next(iter(children.values()), None))
    for engine, child in list(children.items()):
        found = difference(child.outputs, reference.outputs)
        results[engine] = replace(results[engine], **child.opened, difference=found)
        if found > tolerance(cell.network):
            results[engine] = replace(results[engine], error=f"outputs differ by {found:.1e}")
            children.pop(engine).kill()


def take_turns(children: dict[str, Child], results: dict[str, Result]) -> dict[str, float]:
    """Fills the rounds and returns the machine's limits; who fails leaves the comparison."""
    cell = next(iter(results.values())).cell
    runs = {engine: 1 for engine in children}
    limits: list[dict[str, float]] = []
    order = list(children)
    start = time.monotonic()
    for round_number in range(MOST_ROUNDS + 1):
        if round_number > LEAST_ROUNDS and time.monotonic() - start > ENOUGH:
            break
        for engine in [engine for engine in order if engine in children]:
            try:
                seconds = quiet_turn(children[engine], runs[engine])
            except ChildFailed as failed:
                results[engine] = replace(results[engine], error=str(failed), rounds=())
                children.pop(engine).kill()
                continue
            if round_number == 0:  # how many runs fill a turn
                runs[engine] = math.ceil(TURN / min(seconds))
            else:
                rounds = (*results[engine].rounds, median(seconds) / cell.batch)
                results[engine] = replace(results[engine], rounds=rounds)
        limits.append(machine_limits(cell.threads))
        order = order[1:] + order[:1]
    return {name: median(each[name] for each in limits) for name in limits[0]}


def numbers(text: str) -> list[int]:
    return [int(part) for part in text.split(",")]


def names(text: str) -> list[str]:
    found = text.split(",")
    unknown = [name for name in found if name not in NETWORKS]
    if unknown:
        known = ", ".join(NETWORKS)
        raise argparse.ArgumentTypeError(f"no network {unknown[0]!r}; there are {known}")
    return found


def batches(text: str) -> list[int]:
    found = numbers(text)
    if not set(found) <= set(BATCHES):
        raise argparse.ArgumentTypeError(f"{text}: files are prepared for batches of {BATCHES}")
    return found


def cells(arguments: argparse.Namespace) -> list[Cell]:
    """Batch 1 of all networks first: it says most."""
    return [
        Cell(network, batch, threads)
        for batch in arguments.batch
        for network in arguments.only
        for threads in arguments.threads
    ]


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("folder", type=Path)
    parser.add_argument("--only", type=names, default=list(NETWORKS), help="by default all")
    parser.add_argument("--batch", type=batches, default=list(BATCHES))
    parser.add_argument("--threads", type=numbers, default=[1, 2])
    parser.add_argument("--seconds", type=float, default=math.inf)
    arguments = parser.parse_args()

    start = time.monotonic()
    results = Results(arguments.folder / "results.jsonl")
    for cell in cells(arguments):
        engines = results.missing(cell, ENGINES)
        if not engines:
            continue
        if time.monotonic() - start > arguments.seconds:
            sys.exit(f"{sys.argv[0]}: time is up before {cell}; start again to go on")
        results.append(measure(arguments.folder, cell, engines))
        figures = (results.get(cell, engine) for engine in engines)
        texts = [
            f"{r.engine} {r.error or f'{1e3 * r.minimum:.2f} ms'}" for r in figures if r is not None
        ]
        print(f"{cell.network} x {cell.batch}, {cell.threads} threads: {', '.join(texts)}")


if __name__ == "__main__":
    main()
