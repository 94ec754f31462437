"""The model card: what a converted file says about itself, and the check that it can repeat."""

from __future__ import annotations

import hashlib
from pathlib import Path
from typing import Any

import numpy as np

from ..model_file import ModelFileError
from ..network import Mode, Network
from .recipe import Recipe
from .verify import Difference, pictures

WORST_LISTED = 5
SAMPLES = 32
CHECKED_PICTURE = 3


def make_card(
    files: list[Path], recipe: Recipe, task: str, scores: str, label_offset: int
) -> dict[str, Any]:
    """What is known before anything was compared."""
    return {
        "version": 1,
        "source": [
            {"name": file.name, "sha256": hashlib.sha256(file.read_bytes()).hexdigest()}
            for file in files
        ],
        "task": task,
        "input": {"order": "rgb", "fit": recipe.fit, "folded": recipe.to_json()},
        "scores": scores,
        "label_offset": label_offset,
    }


def summary(differences: list[Difference]) -> dict[str, Any]:
    """What a comparison found."""
    return {
        "pictures": len(pictures(1, 1)),
        "tensors": len(differences),
        "worst": [d.to_json() for d in differences[:WORST_LISTED]],
    }


def output_samples(model: Path, mode: Mode = Mode.CPU) -> dict[str, Any]:
    """Values of every output on one drawn picture, evenly spaced, to be compared again later."""
    with Network(model) as network:
        network.set_up(mode)
        picture = pictures(*network.input_shape[2:])[CHECKED_PICTURE]
        outputs = [output.ravel() for output in network.run(picture)]
    return {
        "picture": CHECKED_PICTURE,
        "outputs": [
            {
                "count": int(values.size),
                "range": float(values.max() - values.min()),
                "samples": values[_places(values.size)].astype(float).tolist(),
            }
            for values in outputs
        ],
    }


def repeat_check(model: Path, stored: dict[str, Any], mode: Mode = Mode.CPU) -> float:
    """The largest error of a model's outputs against its card's, in parts of the output's range.

    Infinite when the outputs are not even the same in number or size. Raises `ModelFileError` for
    a check that is not whole.
    """
    now = output_samples(model, mode)["outputs"]
    try:
        then = [
            (output["count"], np.float64(output["samples"]), float(output["range"]))
            for output in stored["outputs"]
        ]
    except (KeyError, TypeError, ValueError) as error:
        raise ModelFileError("its card has no whole check") from error
    worst = 0.0
    if len(now) != len(then):
        return float("inf")
    for new, (count, samples, range_) in zip(now, then):
        if new["count"] != count or len(new["samples"]) != samples.size:
            return float("inf")
        error = np.abs(new["samples"] - samples.ravel()).max(initial=0.0)
        worst = max(worst, float(np.nan_to_num(error, nan=np.inf)) / (range_ or 1.0))
    return worst


def _places(count: int) -> np.ndarray:
    return np.unique(np.linspace(0, count - 1, min(count, SAMPLES)).astype(int))
