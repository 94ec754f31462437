"""A plain numpy evaluation of a detector's model file, to check what was written.

It knows nothing of how the network was trained: layers are computed as their records describe them.
Blobs are arrays (N, H, W, C).
"""

from __future__ import annotations

import sys
from pathlib import Path
from typing import NamedTuple

import numpy as np

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "python"))
from ravu.model_file import (  # noqa: E402
    BatchNorm,
    Concat,
    Conv,
    DetectionOutput,
    Flatten,
    Model,
    Pool,
    PriorBox,
    Relu,
    Reshape,
    Scale,
    Softmax,
)

CENTRE_SIZE = 2


class Detection(NamedTuple):
    """A class index, its score and the box: left, top, right, bottom as fractions of the image."""

    label: int
    score: float
    box: np.ndarray


def detect(model: Model, pixels: np.ndarray) -> list[list[Detection]]:
    """The detections in each image; `pixels` are N, H, W, C with values 0 to 255."""
    blobs = evaluate(model, pixels)
    last = model.layers[-1]
    locations, scores, priors = (blobs[name] for name in last.inputs)
    boxes = priors.reshape(2, -1, 4)[0]
    locations = locations.reshape(len(pixels), len(boxes), 4)
    scores = scores.reshape(len(pixels), len(boxes), last.num_classes)
    return [_detections(last, decode(l, boxes), s) for l, s in zip(locations, scores)]


def evaluate(model: Model, pixels: np.ndarray) -> dict[str, np.ndarray]:
    """Every Blob but the detections, by name. One written in place holds its last values."""
    blobs = {model.input_name: pixels.astype(np.float32)}
    for layer in model.layers[:-1]:
        inputs = [blobs[name] for name in layer.inputs]
        blobs[layer.outputs[0]] = _FORWARD[type(layer)](layer, *inputs)
    return blobs


def prior_boxes(layer: PriorBox, rows: int, columns: int, image: tuple[int, int]) -> np.ndarray:
    """(rows * columns * boxes per cell, 4): left, top, right, bottom as fractions of the image.

    `image` is the network's height and width in pixels, for layers that do not state them.
    """
    height, width = (layer.img_h, layer.img_w) if layer.img_h and layer.img_w else image
    step = np.array([layer.step_w, layer.step_h])
    if not step.all():
        step = np.array([width / columns, height / rows])
    shapes = []
    for i, size in enumerate(layer.min_size):
        smallest = int(size)
        shapes.append((smallest, smallest))
        if len(layer.max_size):
            shapes.append((np.sqrt(smallest * int(layer.max_size[i])),) * 2)
        roots = np.sqrt([ratio for ratio in layer.aspect_ratios if abs(ratio - 1) >= 1e-6])
        shapes += [(smallest * root, smallest / root) for root in roots]
    half = np.array(shapes) / 2
    y, x = np.mgrid[0:rows, 0:columns]
    centres = (np.stack([x, y], axis=2).reshape(-1, 1, 2) + layer.offset) * step
    corners = np.concatenate([centres - half, centres + half], axis=2)
    boxes = (corners / [width, height, width, height]).reshape(-1, 4)
    return boxes.clip(0, 1) if layer.clip else boxes


def decode(locations: np.ndarray, priors: np.ndarray) -> np.ndarray:
    """Boxes from centres and sizes that are relative to the priors, without variances."""
    size = priors[:, 2:] - priors[:, :2]
    centre = (priors[:, 2:] + priors[:, :2]) / 2 + locations[:, :2] * size
    half = np.exp(locations[:, 2:]) * size / 2
    return np.concatenate([centre - half, centre + half], axis=1)


def overlaps(box: np.ndarray, others: np.ndarray) -> np.ndarray:
    """Intersection over union of one box with each of the others."""
    sides = np.minimum(box[2:], others[:, 2:]) - np.maximum(box[:2], others[:, :2])
    common = sides.clip(0).prod(axis=1)
    areas = (others[:, 2:] - others[:, :2]).prod(axis=1)
    union = areas + (box[2:] - box[:2]).prod() - common
    return np.divide(common, union, out=np.zeros_like(common), where=common > 0)


def _detections(layer: DetectionOutput, boxes: np.ndarray, scores: np.ndarray) -> list[Detection]:
    if layer.code_type != CENTRE_SIZE or not layer.variance_encoded_in_target:
        raise ValueError("only centres and sizes with encoded variances are evaluated here")
    found = []
    for label in range(layer.num_classes):
        if label == layer.background_label_id:
            continue
        for i in _suppressed(layer, boxes, scores[:, label]):
            found.append(Detection(label, float(scores[i, label]), boxes[i]))
    if layer.keep_top_k >= 0:
        found = sorted(found, key=lambda one: -one.score)[: layer.keep_top_k]
    return found


def _suppressed(layer: DetectionOutput, boxes: np.ndarray, scores: np.ndarray) -> list[int]:
    """The priors that are left, best first, when each removes the worse ones it overlaps."""
    candidates = np.flatnonzero(scores > layer.confidence_threshold)
    candidates = candidates[np.argsort(-scores[candidates], kind="stable")]
    if layer.top_k >= 0:
        candidates = candidates[: layer.top_k]
    kept: list[int] = []
    for i in candidates:
        if not kept or overlaps(boxes[i], boxes[kept]).max() <= layer.nms_threshold:
            kept.append(int(i))
    return kept


def _convolve(layer: Conv, x: np.ndarray) -> np.ndarray:
    pad, size, step = layer.padding, layer.ksize, layer.stride
    x = np.pad(x, ((0, 0), (pad, pad), (pad, pad), (0, 0)))
    rows, columns = ((extent - size) // step + 1 for extent in x.shape[1:3])
    out = np.zeros((len(x), rows, columns, layer.num_kernels), np.float32)
    for i in range(size):
        for j in range(size):
            window = x[:, i : i + step * rows : step, j : j + step * columns : step]
            out += window[:, :rows, :columns] @ layer.kernels[:, i, j, :].T
    return out if layer.bias is None else out + layer.bias


def _pool(layer: Pool, x: np.ndarray) -> np.ndarray:
    """Maximum over windows that do not overlap; the size must be a multiple of the window's."""
    n, rows, columns, channels = x.shape
    size = layer.size
    if layer.mode != "max" or layer.stride != size or rows % size or columns % size:
        raise ValueError("only the maximum over windows that cover the image is evaluated here")
    tiles = x.reshape(n, rows // size, size, columns // size, size, channels)
    return tiles.max(axis=(2, 4))


def _softmax(layer: Softmax, x: np.ndarray) -> np.ndarray:
    powers = np.exp(x - x.max(axis=-1, keepdims=True))
    return powers / powers.sum(axis=-1, keepdims=True)


def _reshape(layer: Reshape, x: np.ndarray) -> np.ndarray:
    dims = [new if new > 0 else old for new, old in zip(layer.dims, x.shape)]
    if layer.inferred_axis >= 0:
        dims[layer.inferred_axis] = x.size // int(np.prod([new for new in layer.dims if new > 0]))
    return x.reshape(dims)


def _priors(layer: PriorBox, x: np.ndarray, image: np.ndarray) -> np.ndarray:
    """Row 0 the boxes, row 1 the variances; with one variance all of them are the same."""
    if len(layer.variance) != 1:
        raise ValueError("only a single variance is evaluated here")
    boxes = prior_boxes(layer, *x.shape[1:3], image.shape[1:3]).ravel()
    variances = np.full_like(boxes, layer.variance[0])
    return np.stack([boxes, variances]).reshape(1, 2, 1, -1).astype(np.float32)


_FORWARD = {
    BatchNorm: lambda layer, x: (x - layer.mean) / layer.divisor,
    Concat: lambda layer, *inputs: np.concatenate(inputs, axis=3),
    Conv: _convolve,
    Flatten: lambda layer, x: x.reshape(len(x), 1, 1, -1),
    Pool: _pool,
    PriorBox: _priors,
    Relu: lambda layer, x: np.maximum(x, x * np.float32(layer.negative_slope)),
    Reshape: _reshape,
    Scale: lambda layer, x: x * layer.scales + (0 if layer.bias is None else layer.bias),
    Softmax: _softmax,
}
