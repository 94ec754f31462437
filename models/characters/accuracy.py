#!/usr/bin/python3
"""Measure the engine's own accuracy on held-out pictures, through `ravu classify --json`.

Draws the pictures into a temporary folder, hands them to the program as files, and reports how
often its best label is the true one, and which labels it confuses most. Needs Pillow and the font
packages of fonts.txt.
"""

from __future__ import annotations

import argparse
import json
import subprocess
import tempfile
from collections import Counter
from pathlib import Path

from dataset import held_out_samples, write_pictures

MODEL_PATH = Path(__file__).with_name("characters.ravu")
BATCH = 250


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("ravu", help="the ravu program")
    parser.add_argument("--count", type=int, default=2000, help="held-out pictures to measure on")
    parser.add_argument("--mode", type=int, default=0, help="run mode of the engine")
    parser.add_argument("--model", type=Path, default=MODEL_PATH, help="the model file")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        paths = write_pictures(held_out_samples(options.count), Path(folder))
        pairs = Counter()
        for start in range(0, len(paths), BATCH):
            batch = paths[start : start + BATCH]
            pairs.update(zip(map(true_label, batch), classify(options, batch)))
    report(pairs)


def true_label(path: Path) -> str:
    return path.stem.split("_")[1]


def classify(options: argparse.Namespace, paths: list[Path]) -> list[str]:
    """The program's best label for each picture. Exits when the program fails or skips pictures."""
    ravu = options.ravu
    command = [ravu, "classify", str(options.model), *map(str, paths), "--json"]
    command += ["--mode", str(options.mode)]
    result = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=False)
    if result.returncode:
        raise SystemExit(f"{ravu} classify failed with status {result.returncode}")
    best = {entry["image"]: entry["predictions"][0]["label"] for entry in json.loads(result.stdout)}
    missing = [str(path) for path in paths if str(path) not in best]
    if missing:
        raise SystemExit(f"{ravu} classify left out {len(missing)} pictures, such as {missing[0]}")
    return [best[str(path)] for path in paths]


def report(pairs: Counter[tuple[str, str]]) -> None:
    total = sum(pairs.values())
    right = sum(count for (truth, guess), count in pairs.items() if truth == guess)
    print(f"top-1 accuracy: {right / total:.2%} ({right} of {total})")
    confused: Counter[str] = Counter()
    for (truth, guess), count in pairs.items():
        if truth != guess:
            confused[" and ".join(sorted((truth, guess)))] += count
    for pair, count in confused.most_common(8):
        print(f"  {pair}: {count}")


if __name__ == "__main__":
    main()
