"""Series of scenes as network inputs with their true boxes, and as files."""

from __future__ import annotations

import json
import multiprocessing
from dataclasses import dataclass
from pathlib import Path

import numpy as np
from PIL import Image
from scenes import TRAINING_SERIES, Scene, draw_scene
from signs import LABELS

INPUT_SIZE = 128
MOST_SIGNS = 6


@dataclass(frozen=True)
class Inputs:
    """Scenes at the network's input size.

    pixels: (n, INPUT_SIZE, INPUT_SIZE, 3) bytes
    boxes:  (n, MOST_SIGNS, 4) left, top, right, bottom as fractions of the picture
    labels: (n, MOST_SIGNS) indices into LABELS; 0 where there is no sign
    """

    pixels: np.ndarray
    boxes: np.ndarray
    labels: np.ndarray

    @classmethod
    def empty(cls, count: int) -> Inputs:
        return cls(
            np.empty((count, INPUT_SIZE, INPUT_SIZE, 3), np.uint8),
            np.zeros((count, MOST_SIGNS, 4), np.float32),
            np.zeros((count, MOST_SIGNS), np.int64),
        )

    def put(self, index: int, scene: Scene, pixels: np.ndarray) -> None:
        found = len(scene.labels)
        self.pixels[index] = pixels
        self.boxes[index, :found] = fractions(scene)
        self.labels[index, :found] = scene.labels


def fractions(scene: Scene) -> np.ndarray:
    """The scene's boxes as fractions of its picture's sides."""
    return scene.boxes / np.tile(scene.image.size, 2)


def training_inputs(count: int, workers: int) -> Inputs:
    """The training series, shrunk in all common ways so that the network depends on none."""
    inputs = Inputs.empty(count)
    with multiprocessing.Pool(workers) as pool:
        drawn = pool.imap(_training_scene, range(count), chunksize=50)
        for index, (scene, pixels) in enumerate(drawn):
            inputs.put(index, scene, pixels)
    return inputs


def evaluation_inputs(scenes: list[Scene]) -> Inputs:
    """Whole pictures scaled to the input size as `ravu detect` does."""
    inputs = Inputs.empty(len(scenes))
    for index, scene in enumerate(scenes):
        inputs.put(index, scene, as_input(scene.image))
    return inputs


def as_input(picture: Image.Image) -> np.ndarray:
    """The whole picture at the network's input size (uint8, HWC)."""
    return np.asarray(picture.resize((INPUT_SIZE, INPUT_SIZE), Image.BILINEAR))


def write_scenes(
    scenes: list[Scene], folder: Path, *, every_other_as_jpeg: bool = False
) -> list[Path]:
    """One picture per scene, such as 0017.png, and truth.json with the boxes that are in each.

    truth.json is a list with one object per picture: "image" (the file's name), "width", "height"
    and "signs", a list of objects with "label" and "box" (left, top, right, bottom in pixels).
    Returns the pictures' paths, in order.
    """
    folder.mkdir(parents=True, exist_ok=True)
    digits = max(2, len(str(len(scenes) - 1)))
    paths, truth = [], []
    for index, scene in enumerate(scenes):
        kind = "jpg" if every_other_as_jpeg and index % 2 else "png"
        paths.append(folder / f"{index:0{digits}}.{kind}")
        scene.image.save(paths[-1], quality=92)
        width, height = scene.image.size
        signs = [
            {"label": LABELS[label], "box": [round(float(side), 2) for side in box]}
            for label, box in zip(scene.labels, scene.boxes)
        ]
        truth.append(
            {"image": paths[-1].name, "width": width, "height": height, "signs": signs}
        )
    (folder / "truth.json").write_text(json.dumps(truth, indent=1) + "\n")
    return paths


def _training_scene(index: int) -> tuple[Scene, np.ndarray]:
    scene = draw_scene(TRAINING_SERIES, index)
    rng = np.random.default_rng([TRAINING_SERIES, index, 1])
    target = (INPUT_SIZE, INPUT_SIZE)
    way = rng.integers(4)
    if way == 3:
        # Without smoothing, as libraries shrink that look at four pixels only.
        box = (0, 0, *scene.image.size)
        shrunk = scene.image.transform(target, Image.EXTENT, box, Image.BILINEAR)
    else:
        shrunk = scene.image.resize(target, (Image.BOX, Image.BILINEAR, Image.BICUBIC)[way])
    return scene, np.asarray(shrunk)
