"""One engine with one network, in a process of its own that stays and runs when told.

usage: child.py ENGINE FOLDER NETWORK BATCH THREADS OUTPUTS

Opens the network, runs it, stores what it gave in the file OUTPUTS, and says so. Then each line on
standard input, {"runs": N}, is answered by the seconds of N runs. At the end of the input the last
answer is the most memory that the process held. Answers are lines of JSON on standard output;
whatever libraries print there goes to standard error.
"""

from __future__ import annotations

import json
import os
import sys
import time
from pathlib import Path
from typing import Any

import numpy as np
from engines import ENGINES


def peak_kib() -> int:
    """VmHWM: the largest resident size so far, the interpreter included."""
    status = Path("/proc/self/status").read_text(encoding="ascii")
    line = next(line for line in status.splitlines() if line.startswith("VmHWM"))
    return int(line.split()[1])


def serve(answer: Any, arguments: list[str]) -> None:
    engine, folder, network, batch, threads, outputs = arguments
    images = np.load(Path(folder) / network / "input.npy")[: int(batch)]
    bare_kib = peak_kib()
    start = time.perf_counter()
    open_network = ENGINES[engine][1]
    run, version = open_network(Path(folder) / network, network, int(threads), images)
    found = run()
    opened = time.perf_counter() - start
    np.savez(outputs, *(np.ravel(values) for values in found))
    run()
    answer({"opened": opened, "version": version})
    for line in sys.stdin:
        seconds = []
        for _ in range(json.loads(line)["runs"]):
            start = time.perf_counter()
            run()
            seconds.append(time.perf_counter() - start)
        answer({"seconds": seconds})
    answer({"peak_kib": peak_kib(), "bare_kib": bare_kib})


def main() -> None:
    stream = os.fdopen(os.dup(1), "w")
    os.dup2(2, 1)

    def answer(values: dict[str, Any]) -> None:
        print(json.dumps(values), file=stream, flush=True)

    os.sched_setaffinity(0, range(int(sys.argv[5])))
    try:
        serve(answer, sys.argv[1:])
    except Exception as error:
        answer({"error": f"{type(error).__name__}: {error}".splitlines()[0][:200]})


if __name__ == "__main__":
    main()
