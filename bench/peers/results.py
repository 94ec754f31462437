"""What was measured: one line of JSON for each engine in each cell, appended as cells finish.

The newest line of an engine in a cell counts. A last line that was cut short counts as not written,
so a comparison that was interrupted goes on where it stopped.
"""

from __future__ import annotations

import json
from collections.abc import Iterable
from dataclasses import asdict, dataclass
from pathlib import Path
from statistics import median
from typing import Any

FIRST = "ravu"
"""The engine that the others are compared with."""


@dataclass(frozen=True)
class Cell:
    """What all engines do side by side."""

    network: str
    batch: int
    threads: int


@dataclass(frozen=True)
class Result:
    """One engine in one cell, or why there are no figures.

    rounds:     seconds an image, the median of each round, oldest first
    first:      the same of FIRST in the same run, what `rounds` may be compared with
    opened:     seconds from the start to the first outputs
    peak_kib:   the most memory of the process; bare_kib before the engine was imported
    difference: the largest from the reference's outputs, in parts of their largest value
    limits:     what the machine could do in the same run, the median of the rounds
    """

    cell: Cell
    engine: str
    version: str = ""
    error: str = ""
    rounds: tuple[float, ...] = ()
    first: tuple[float, ...] = ()
    opened: float = 0.0
    peak_kib: int = 0
    bare_kib: int = 0
    difference: float = 0.0
    limits: dict[str, float] | None = None

    @property
    def minimum(self) -> float:
        return min(self.rounds)

    @property
    def median(self) -> float:
        return median(self.rounds)

    @property
    def spread(self) -> float:
        """How far apart the rounds were, in parts of their median."""
        return (max(self.rounds) - min(self.rounds)) / self.median


class Results:
    def __init__(self, path: Path) -> None:
        self.path = path
        self._found: dict[tuple[Cell, str], Result] = {}
        if path.exists():
            for line in path.read_text(encoding="utf-8").splitlines():
                self._take(line)

    def get(self, cell: Cell, engine: str) -> Result | None:
        return self._found.get((cell, engine))

    def missing(self, cell: Cell, engines: Iterable[str]) -> list[str]:
        """Whom to measure: FIRST goes with the others, since only one run compares them."""
        engines = list(engines)
        lacking = [engine for engine in engines if (cell, engine) not in self._found]
        return [engine for engine in engines if engine in lacking or engine == FIRST and lacking]

    def append(self, results: Iterable[Result]) -> None:
        self.path.parent.mkdir(parents=True, exist_ok=True)
        with self.path.open("a", encoding="utf-8") as file:
            if file.tell() and not self.path.read_bytes().endswith(b"\n"):
                file.write("\n")
            for result in results:
                file.write(json.dumps(asdict(result)) + "\n")
                self._found[result.cell, result.engine] = result

    def _take(self, line: str) -> None:
        try:
            values: dict[str, Any] = json.loads(line)
        except ValueError:
            return
        cell = Cell(**values.pop("cell"))
        values["rounds"], values["first"] = tuple(values["rounds"]), tuple(values["first"])
        self._found[cell, values["engine"]] = Result(cell=cell, **values)
