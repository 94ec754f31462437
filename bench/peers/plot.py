"""The time tables as bars: how many times as long as this engine each one takes."""

from __future__ import annotations

from collections.abc import Mapping
from pathlib import Path

import matplotlib
from networks import NETWORKS
from results import FIRST, Cell, Results

matplotlib.use("svg")
matplotlib.rcParams["svg.hashsalt"] = "ravu"  # the same figures give the same file
from matplotlib import pyplot  # noqa: E402

COLOURS = ("#222222", "#4477aa", "#66ccee", "#228833", "#ccbb44", "#ee6677")
PANELS = [(batch, threads) for batch in (1, 8) for threads in (1, 2)]


def draw(results: Results, titles: Mapping[str, str], path: Path) -> None:
    figure, panels = pyplot.subplots(2, 2, figsize=(13, 9), sharey=True)
    for axes, (batch, threads) in zip(panels.flat, PANELS):
        _draw_panel(axes, results, titles, batch, threads)
    handles, labels = panels[0][0].get_legend_handles_labels()
    figure.legend(handles, labels, loc="upper center", ncol=len(titles), frameon=False)
    figure.tight_layout(rect=(0, 0, 1, 0.96))
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


def _draw_panel(
    axes: pyplot.Axes, results: Results, titles: Mapping[str, str], batch: int, threads: int
) -> None:
    width = 0.8 / len(titles)
    for i, engine in enumerate(titles):
        places, heights = [], []
        for j, key in enumerate(NETWORKS):
            result = results.get(Cell(key, batch, threads), engine)
            if result is not None and result.rounds and result.first:
                places.append(j + (i - (len(titles) - 1) / 2) * width)
                heights.append(result.minimum / min(result.first))
        axes.bar(places, heights, width, color=COLOURS[i], label=titles[engine])
    axes.axhline(1, color=COLOURS[0], linewidth=0.8)
    axes.yaxis.grid(True, color="#dddddd")
    axes.set_axisbelow(True)
    axes.set_xlim(-0.6, len(NETWORKS) - 0.4)
    axes.set_xticks(range(len(NETWORKS)), [title for title, _ in NETWORKS.values()], rotation=20)
    axes.set_title(f"batch {batch}, {threads} thread{'s' if threads > 1 else ''}")
    axes.set_ylabel(f"time / {titles[FIRST]}'s time")
