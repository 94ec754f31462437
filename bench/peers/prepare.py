"""Writes every network for every engine into a folder, once: the same seeded weights in each file.

usage: prepare.py FOLDER

FOLDER/NETWORK/ gets model.ravu, batch1.onnx, batch8.onnx, model.param and model.bin (ncnn),
weights.npz (torch) and input.npy, eight images. "complete" is written last.
"""

from __future__ import annotations

import sys
from pathlib import Path

import numpy as np
from ncnn_file import write_ncnn
from networks import NETWORKS
from onnx_file import write_onnx
from ravu_file import write_ravu

SEED = 20
BATCHES = (1, 8)


def prepare(folder: Path, name: str) -> None:
    folder.mkdir(parents=True, exist_ok=True)
    graph = NETWORKS[name][1]()
    weights = graph.draw_weights(SEED)
    write_ravu(graph, weights, folder / "model.ravu")
    for batch in BATCHES:
        write_onnx(graph, weights, batch, folder / f"batch{batch}.onnx")
    write_ncnn(graph, weights, folder / "model.param", folder / "model.bin")
    np.savez(folder / "weights.npz", **weights)
    images = np.random.default_rng(SEED).standard_normal((max(BATCHES), *graph.shapes["data"]))
    np.save(folder / "input.npy", images.astype(np.float32))
    (folder / "complete").touch()


def main() -> None:
    folder = Path(sys.argv[1])
    for name in NETWORKS:
        if not (folder / name / "complete").exists():
            print(f"{name}: writing its files", flush=True)
            prepare(folder / name, name)


if __name__ == "__main__":
    main()
