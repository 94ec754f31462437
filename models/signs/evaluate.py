#!/usr/bin/python3
"""Measure the engine's own mean average precision on held-out scenes, through `ravu detect --json`.

Draws the scenes into a temporary folder, hands them to the program as files, and compares the boxes
that it prints with the true ones. Needs Pillow.
"""

from __future__ import annotations

import argparse
import json
import subprocess
import tempfile
from pathlib import Path

import numpy as np
from series import write_scenes
from precision import average_precisions
from reference import Detection
from scenes import HELD_OUT_SERIES, draw_scene
from signs import LABELS

MODEL_PATH = Path(__file__).with_name("signs.ravu")
BATCH = 250


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("ravu", help="the ravu program")
    parser.add_argument("--count", type=int, default=500, help="held-out scenes to measure on")
    parser.add_argument("--mode", type=int, default=0, help="run mode of the engine")
    parser.add_argument("--model", type=Path, default=MODEL_PATH, help="the model file")
    options = parser.parse_args()
    scenes = [draw_scene(HELD_OUT_SERIES, index) for index in range(options.count)]
    detections: list[list[Detection]] = []
    with tempfile.TemporaryDirectory() as folder:
        paths = write_scenes(scenes, Path(folder))
        for start in range(0, len(paths), BATCH):
            detections += detect(options, paths[start : start + BATCH])
    truths = [(scene.labels, scene.boxes) for scene in scenes]
    report(average_precisions(detections, truths, range(1, len(LABELS))), len(scenes))


def detect(options: argparse.Namespace, paths: list[Path]) -> list[list[Detection]]:
    """What the program finds in each picture, boxes in pixels. Exits when the program fails."""
    ravu = options.ravu
    # Every score counts: precision is measured over all thresholds.
    command = [ravu, "detect", str(options.model), *map(str, paths), "--json", "--threshold", "0"]
    command += ["--mode", str(options.mode)]
    result = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=False)
    if result.returncode:
        raise SystemExit(f"{ravu} detect failed with status {result.returncode}")
    found = {entry["image"]: entry["detections"] for entry in json.loads(result.stdout)}
    missing = [str(path) for path in paths if str(path) not in found]
    if missing:
        raise SystemExit(f"{ravu} detect left out {len(missing)} pictures, such as {missing[0]}")
    return [
        [Detection(LABELS.index(one["label"]), one["score"], np.array(one["box"])) for one in some]
        for some in (found[str(path)] for path in paths)
    ]


def report(each: dict[int, float], scenes: int) -> None:
    for label, value in each.items():
        print(f"  {LABELS[label]}: {value:.3f}")
    print(f"mAP at 0.5 on {scenes} held-out scenes: {np.mean(list(each.values())):.3f}")


if __name__ == "__main__":
    main()
