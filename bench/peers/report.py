"""The figures of results.jsonl as Markdown and as a plot.

usage: report.py RESULTS DOCUMENT PLOT

The text between the two marker lines of DOCUMENT is renewed; PLOT is an SVG file beside it.
"""

from __future__ import annotations

import platform
import sys
from collections.abc import Sequence
from pathlib import Path
from statistics import median

from engines import ENGINES
from networks import BATCHES, NETWORKS
from results import FIRST, Cell, Result, Results

BEGIN, END = "<!-- figures of the comparison -->\n", "<!-- end of the figures -->\n"
TITLES = {engine: title for engine, (title, _) in ENGINES.items()}
THREADS = (1, 2)
CELLS = [Cell(key, b, t) for key in NETWORKS for b in BATCHES for t in THREADS]
KIB_IN_MIB = 1024


def table(header: Sequence[str], rows: Sequence[Sequence[str]]) -> str:
    """All columns but the first to the right."""
    marks = ["---"] + ["---:"] * (len(header) - 1)
    return "".join("| " + " | ".join(row) + " |\n" for row in [header, marks, *rows])


def fastest_peer(results: Results, cell: Cell) -> Result | None:
    """Measured in the same run as the first engine's newest figures, or None."""
    first = results.get(cell, FIRST)
    found = [results.get(cell, engine) for engine in TITLES if engine != FIRST]
    peers = [r for r in found if r is not None and r.rounds and r.first]
    if first is None or not first.rounds or not peers:
        return None
    return min(peers, key=lambda r: r.minimum / min(r.first))


def time_rows(results: Results, batch: int, threads: int) -> list[list[str]]:
    rows = []
    for key, (title, build) in NETWORKS.items():
        cell = Cell(key, batch, threads)
        found = {engine: results.get(cell, engine) for engine in TITLES}
        timed = [r for r in found.values() if r is not None and r.rounds]
        best = min(timed, key=lambda r: r.minimum, default=None)
        row = [title]
        for result in found.values():
            text = "-" if result not in timed else f"{1e3 * result.minimum:.2f}"
            row.append(f"**{text}**" if timed and result is best else text)
        rows.append(row + comparison(results, cell) + limit_cells(found[FIRST], build()))
    return rows


def comparison(results: Results, cell: Cell) -> list[str]:
    """The first engine's time in parts of the fastest peer's, by minimum and by median; spread."""
    peer = fastest_peer(results, cell)
    if peer is None:
        return ["-", "-", "-"]
    spread = max(peer.spread, (max(peer.first) - min(peer.first)) / median(peer.first))
    by_minimum = min(peer.first) / peer.minimum
    by_median = median(peer.first) / peer.median
    return [f"{by_minimum:.2f}", f"{by_median:.2f}", f"{100 * spread:.0f} %"]


def limit_cells(first: Result | None, graph: object) -> list[str]:
    """The first engine's arithmetic, counted as direct sums, in parts of the machine's most."""
    if first is None or not first.rounds or not first.limits:
        return ["-"]
    gflops = 2e-9 * graph.multiply_adds / first.minimum
    return [f"{100 * gflops / first.limits['gflops']:.0f} %"]


def time_tables(results: Results) -> str:
    text = ""
    header = ["network", *TITLES.values(), "ratio", "by median", "spread", "of peak"]
    for batch in BATCHES:
        for threads in THREADS:
            rows = time_rows(results, batch, threads)
            if any(set(row[1:]) != {"-"} for row in rows):
                images = "one image" if batch == 1 else f"{batch} images at once"
                counted = "one thread" if threads == 1 else f"{threads} threads"
                text += f"**{images.capitalize()}, {counted}**, ms an image; "
                text += commits(results, batch, threads) + "\n\n"
                text += table(header, rows) + "\n"
    return text


def commits(results: Results, batch: int, threads: int) -> str:
    """Where the first engine stood: the commit of most rows, then the rows of others."""
    titles: dict[str, list[str]] = {}
    for key, (title, _) in NETWORKS.items():
        result = results.get(Cell(key, batch, threads), FIRST)
        if result is not None and result.version:
            titles.setdefault(result.version, []).append(title)
    (most, _), *others = sorted(titles.items(), key=lambda entry: -len(entry[1])) or [("?", [])]
    exceptions = "".join(f", {', '.join(rows)} at {version}" for version, rows in others)
    return f"{TITLES[FIRST]} at {most}{exceptions}"


def memory_table(results: Results) -> str:
    """The most memory of each process, without what Python held before the engine came."""

    def shown(result: Result | None) -> str:
        if result is None or not result.rounds:
            return "-"
        return f"{(result.peak_kib - result.bare_kib) / KIB_IN_MIB:.0f}"

    rows = []
    for key, (title, build) in NETWORKS.items():
        weights = sum(values.size for values in build().draw_weights(0).values()) * 4 / 2**20
        for batch in BATCHES:
            cell = Cell(key, batch, 1)
            if results.get(cell, FIRST) is not None:
                cells = [shown(results.get(cell, engine)) for engine in TITLES]
                rows.append([f"{title}, batch {batch}", f"{weights:.0f}", *cells])
    return table(["network", "weights", *TITLES.values()], rows)


def opening_table(results: Results) -> str:
    rows = []
    for key, (title, _) in NETWORKS.items():
        found = [results.get(Cell(key, 1, 1), engine) for engine in TITLES]
        if found[0] is not None:
            cells = ["-" if r is None or not r.rounds else f"{r.opened:.2f}" for r in found]
            rows.append([title, *cells])
    return table(["network", *TITLES.values()], rows)


def text_of(cell: Cell) -> str:
    threads = "1 thread" if cell.threads == 1 else f"{cell.threads} threads"
    return f"{NETWORKS[cell.network][0]} x {cell.batch}, {threads}"


def all_results(results: Results) -> list[Result]:
    found = [results.get(cell, engine) for cell in CELLS for engine in TITLES]
    return [result for result in found if result is not None]


def processor() -> str:
    for line in Path("/proc/cpuinfo").read_text(encoding="ascii").splitlines():
        if line.startswith("model name"):
            return line.split(":")[1].strip()
    return platform.machine()


def system() -> str:
    return platform.freedesktop_os_release().get("PRETTY_NAME", platform.system())


def setting(results: Results) -> str:
    """Machine, limits and versions."""
    found = all_results(results)
    text = f"{processor()}, {system()}. Measured limits (median and range over all cells):\n\n"
    rows = []
    for threads in THREADS:
        limits = [r.limits for r in found if r.engine == FIRST and r.cell.threads == threads]
        limits = [each for each in limits if each]
        if limits:
            rows.append([str(threads), *(ranged(limits, name) for name in limits[0])])
    text += table(["threads", "GF/s", "reading memory, GB/s", "floats in a vector"], rows) + "\n"
    versions = {r.engine: r.version for r in found if r.version and r.engine != FIRST}
    named = [f"{TITLES[engine]} {version}" for engine, version in versions.items()]
    return text + f"Versions: {', '.join(named)}.\n"


def ranged(limits: Sequence[dict[str, float]], name: str) -> str:
    values = [each[name] for each in limits]
    if min(values) == max(values):
        return f"{values[0]:g}"
    return f"{median(values):.1f} ({min(values):.1f} to {max(values):.1f})"


def agreement(results: Results) -> str:
    """The worst difference of each network, and the engines without figures."""
    found = all_results(results)
    worst = []
    for key, (title, _) in NETWORKS.items():
        own = [r for r in found if r.cell.network == key and r.rounds]
        if own:
            most = max(own, key=lambda r: r.difference)
            worst.append(f"{title} {most.difference:.0e} ({TITLES[most.engine]})")
    text = f"Largest differences: {', '.join(worst)}.\n"
    reasons: dict[tuple[str, str], list[str]] = {}
    for r in found:
        if r.error:
            reasons.setdefault((r.engine, r.error), []).append(text_of(r.cell))
    for (engine, error), where in reasons.items():
        text += f"No figures of {TITLES[engine]} ({error}): {'; '.join(where)}.\n"
    missing = [text_of(cell) for cell in CELLS if results.missing(cell, TITLES)]
    return text + (f"Not measured yet: {'; '.join(missing)}.\n" if missing else "")


def renewed(document: str, figures: str) -> str:
    """The document with other figures between its markers."""
    before, rest = document.split(BEGIN)
    return before + BEGIN + "\n" + figures + "\n" + END + rest.split(END)[1]


def figures(results: Results) -> str:
    return (
        setting(results)
        + "\n"
        + time_tables(results)
        + "**Memory**, MiB, one thread\n\n"
        + memory_table(results)
        + "\n**From nothing to the first outputs**, seconds, one image, one thread\n\n"
        + opening_table(results)
        + "\n"
        + agreement(results)
    )


def main() -> None:
    results, document, plot = Results(Path(sys.argv[1])), Path(sys.argv[2]), Path(sys.argv[3])
    from plot import draw  # only here: the tests do without matplotlib

    document.write_text(renewed(document.read_text("utf-8"), figures(results)), "utf-8")
    draw(results, TITLES, plot)


if __name__ == "__main__":
    main()
