"""Times whole networks in run mode 2 beside run mode 0, and set-up with and without kept kernels.

usage: gpu_networks.py PROGRAM MODEL... [--threads N] [--rounds N]

PROGRAM is the ravu program, MODEL a model file. For each model: loading, setting up and the first
pass in a new process, with empty caches of kernels ("cold"), with filled ones ("warm") and in run
mode 0; then passes, one process of each mode in turn, the median of their medians. Prints a
Markdown table. Caches are folders of their own, so the user's stay as they are.
"""

from __future__ import annotations

import argparse
import json
import os
import subprocess
import tempfile
from pathlib import Path
from statistics import median

FIRST_RESULT = ("load", "set_up", "first_pass")
PASSES = 10
COLUMNS = ("network", "cold, s", "warm, s", "mode 0, s", "mode 2, ms", "mode 0, ms", "mode 2 / 0")


class Program:
    """`ravu bench` with a folder of its own for every cache of kernels."""

    def __init__(self, path: Path, caches: str, threads: int) -> None:
        self.command = [str(path), "bench", "--json", "--threads", str(threads)]
        self.environment = {**os.environ, "XDG_CACHE_HOME": caches, "POCL_CACHE_DIR": caches}

    def bench(self, model: Path, mode: int, *options: str) -> dict:
        command = [*self.command, str(model), "--mode", str(mode), *options]
        done = subprocess.run(command, env=self.environment, stdout=subprocess.PIPE, check=True)
        return json.loads(done.stdout)

    def seconds_to_first_result(self, model: Path, mode: int) -> float:
        report = self.bench(model, mode, "--load", "--repeats", "1")
        return sum(report[step]["median_ms"] for step in FIRST_RESULT) / 1000

    def milliseconds(self, model: Path, mode: int) -> float:
        return self.bench(model, mode, "--repeats", str(PASSES))["pass"]["median_ms"]


def row(arguments: argparse.Namespace, model: Path) -> list[str]:
    with tempfile.TemporaryDirectory() as caches:
        program = Program(arguments.program, caches, arguments.threads)
        starts = [program.seconds_to_first_result(model, mode) for mode in (2, 2, 0)]
        rounds = [
            [program.milliseconds(model, mode) for mode in (2, 0)] for _ in range(arguments.rounds)
        ]
    gpu, processor = (median(times) for times in zip(*rounds))
    figures = [f"{s:.2f}" for s in starts] + [f"{gpu:.1f}", f"{processor:.1f}"]
    name = model.stem if model.stem != "model" else model.parent.name
    return [name, *figures, f"{gpu / processor:.2f}"]


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("program", type=Path)
    parser.add_argument("models", type=Path, nargs="+", metavar="MODEL")
    parser.add_argument("--threads", type=int, default=2)
    parser.add_argument("--rounds", type=int, default=5)
    arguments = parser.parse_args()
    print("| " + " | ".join(COLUMNS) + " |")
    print("|---" * len(COLUMNS) + "|")
    for model in arguments.models:
        print("| " + " | ".join(row(arguments, model)) + " |", flush=True)


if __name__ == "__main__":
    main()
