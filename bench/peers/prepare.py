"""Writes every network for every engine into a folder, once: the same seeded weights in each file.

usage: prepare.py FOLDER

FOLDER/NETWORK/ gets model.ravu, batch1.onnx, batch8.onnx, model.param and model.bin (ncnn),
weights.npz (torch) and input.npy, eight images. "complete" is written last; it names the sources
that wrote the files, so that a change of them writes the files anew.
"""

from __future__ import annotations

import hashlib
import sys
from pathlib import Path

import numpy as np
from ncnn_file import write_ncnn
from networks import BATCHES, NETWORKS
from onnx_file import write_onnx
from ravu_file import write_ravu

SEED = 20
WRITERS = ("graph", "ncnn_file", "networks", "onnx_file", "prepare", "ravu_file")


def sources() -> str:
    """Of what writes the files, a digest."""
    digest = hashlib.sha256()
    for name in WRITERS:
        digest.update(Path(__file__).with_name(f"{name}.py").read_bytes())
    return digest.hexdigest()


def is_complete(folder: Path) -> bool:
    mark = folder / "complete"
    return mark.exists() and mark.read_text(encoding="ascii") == sources()


def prepare(folder: Path, name: str) -> None:
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "complete").unlink(missing_ok=True)
    graph = NETWORKS[name][1]()
    weights = graph.draw_weights(SEED)
    write_ravu(graph, weights, folder / "model.ravu")
    for batch in BATCHES:
        write_onnx(graph, weights, batch, folder / f"batch{batch}.onnx")
    write_ncnn(graph, weights, folder / "model.param", folder / "model.bin")
    np.savez(folder / "weights.npz", **weights)
    images = np.random.default_rng(SEED).standard_normal((max(BATCHES), *graph.shapes["data"]))
    np.save(folder / "input.npy", images.astype(np.float32))
    (folder / "complete").write_text(sources(), encoding="ascii")


def main() -> None:
    folder = Path(sys.argv[1])
    for name in NETWORKS:
        if not is_complete(folder / name):
            print(f"{name}: writing its files", flush=True)
            prepare(folder / name, name)


if __name__ == "__main__":
    main()
