"""Series of pictures as network inputs, and as files.

A series is a seed; its pictures are numbered from 0. The training series is drawn from the fonts
that are trained on, the two others from those held out.
"""

from __future__ import annotations

import multiprocessing
from pathlib import Path

import numpy as np
from fonts import LABELS, Groups, load_groups
from PIL import Image
from render import Sample, draw_sample

INPUT_SIZE = 32
TRAINING_SERIES = 1
HELD_OUT_SERIES = 2
EXAMPLE_SERIES = 3

_groups: Groups = []


def training_inputs(count: int, workers: int) -> tuple[np.ndarray, np.ndarray]:
    """`count` training inputs (uint8, NHWC) and their class indices, shrunk in all common ways."""
    with multiprocessing.Pool(workers, _use_groups, (load_groups()[0],)) as pool:
        drawn = pool.imap(_training_input, range(count), chunksize=250)
        inputs = np.empty((count, INPUT_SIZE, INPUT_SIZE, 3), np.uint8)
        labels = np.empty(count, np.int64)
        for i, (pixels, label) in enumerate(drawn):
            inputs[i], labels[i] = pixels, label
    return inputs, labels


def held_out_samples(count: int, series: int = HELD_OUT_SERIES) -> list[Sample]:
    """The first `count` pictures of a series, printed in fonts that are never trained on."""
    held_out = load_groups()[1]
    return [draw_sample(held_out, series, index) for index in range(count)]


def as_input(picture: Image.Image) -> np.ndarray:
    """The whole picture at the network's input size (uint8, HWC)."""
    return np.asarray(picture.resize((INPUT_SIZE, INPUT_SIZE), Image.BILINEAR))


def write_pictures(
    samples: list[Sample], folder: Path, *, every_other_as_jpeg: bool = False
) -> list[Path]:
    """One file per picture, named by its number and true label, such as 0017_K.png.

    PNG keeps the pixels as they are. Returns the paths, in order.
    """
    folder.mkdir(parents=True, exist_ok=True)
    digits = len(str(len(samples) - 1))
    paths = []
    for index, sample in enumerate(samples):
        kind = "jpg" if every_other_as_jpeg and index % 2 else "png"
        paths.append(folder / f"{index:0{digits}}_{LABELS[sample.label]}.{kind}")
        sample.image.save(paths[-1], quality=90)
    return paths


def _use_groups(groups: Groups) -> None:
    global _groups
    _groups = groups


def _training_input(index: int) -> tuple[np.ndarray, int]:
    sample = draw_sample(_groups, TRAINING_SERIES, index)
    rng = np.random.default_rng([TRAINING_SERIES, index, 1])
    picture = sample.image
    if rng.random() < 0.5:
        side = min(picture.size)
        left, top = (picture.width - side) // 2, (picture.height - side) // 2
        picture = picture.crop((left, top, left + side, top + side))
    target = (INPUT_SIZE, INPUT_SIZE)
    way = rng.integers(4)
    if way == 3:
        # Without smoothing, as libraries shrink that look at four pixels only.
        picture = picture.transform(target, Image.EXTENT, (0, 0, *picture.size), Image.BILINEAR)
    else:
        picture = picture.resize(target, (Image.BOX, Image.BILINEAR, Image.BICUBIC)[way])
    return np.asarray(picture), sample.label
