"""The proof: source and model on the same pictures, every mapped tensor compared.

The source is run by ONNX Runtime on the file as it is. This module shares nothing with the mapping
but the list of which tensor of the engine holds which of the source.
"""

from __future__ import annotations

from collections.abc import Iterable, Sequence
from dataclasses import asdict, dataclass
from pathlib import Path
from typing import Any, Protocol

import numpy as np

from ..network import Mode, Network
from .graph import SourceError
from .recipe import Recipe
from .values import Value, to_source_order

SEEDS = (1, 2, 3)
TOLERANCE = 1e-4
TOLERANCE_WITH_NORMALISATION = 1e-3
MOST_LOST_ROWS = 0.01
_INPUT_TYPES = {"tensor(uint8)": np.uint8, "tensor(double)": np.float64}


@dataclass(frozen=True)
class Difference:
    """One tensor: the largest error over all pictures, and what it is compared with.

    error: absolute
    range: greatest minus least value of the source
    """

    tensor: str
    error: float
    range: float

    @property
    def relative(self) -> float:
        if not np.isfinite(self.error):
            return float("inf")
        return self.error / self.range if self.range > 0 else self.error

    def to_json(self) -> dict[str, Any]:
        return {**asdict(self), "relative": self.relative}


def pictures(size: int, channels: int) -> list[np.ndarray]:
    """Bytes of (size, size, channels): noise of three seeds, and two drawn scenes."""
    found = [
        np.random.default_rng(seed).integers(0, 256, (size, size, channels), np.uint8)
        for seed in SEEDS
    ]
    rows, columns = np.mgrid[0:size, 0:size] / max(size - 1, 1)
    phases = np.arange(channels)
    waves = np.sin(7 * rows[..., None] + phases) * np.cos(5 * columns[..., None] - phases)
    found.append(np.uint8(np.rint(127.5 + 127.5 * waves)))
    disc = (rows - 0.45) ** 2 + (columns - 0.6) ** 2 < 0.08
    slope = 255 * np.stack([rows, columns, 1 - rows][:channels] or [rows], axis=-1)
    scene = np.resize(slope.transpose(2, 0, 1), (channels, size, size)).transpose(1, 2, 0)
    found.append(np.uint8(np.where(disc[..., None], 255 - 60 * (phases % 4), scene)))
    return found


def source_pixels(picture: np.ndarray, recipe: Recipe) -> np.ndarray:
    """What the source's own program would feed for a picture: (1, channels, height, width)."""
    channels = picture.shape[2]
    pixels = picture[:, :, ::-1] if recipe.bgr else picture
    planes = pixels.astype(np.float64).transpose(2, 0, 1) / recipe.range
    mean = np.resize(np.asarray(recipe.mean, np.float64), channels)
    deviation = np.resize(np.asarray(recipe.deviation, np.float64), channels)
    return np.float32((planes - mean[:, None, None]) / deviation[:, None, None])[None]


class OnnxSource:
    """Runs an ONNX file with ONNX Runtime and fetches any of its tensors."""

    def __init__(self, path: Path, tensors: Iterable[str]) -> None:
        import onnx
        import onnxruntime

        model = onnx.load_model(str(path))
        self._path = path
        listed = {value.name for value in model.graph.output}
        self.tensors = list(tensors)
        for name in self.tensors:
            if name not in listed:
                model.graph.output.append(onnx.helper.make_empty_tensor_value_info(name))
        options = onnxruntime.SessionOptions()
        options.log_severity_level = 3
        options.graph_optimization_level = onnxruntime.GraphOptimizationLevel.ORT_DISABLE_ALL
        try:
            self._session = onnxruntime.InferenceSession(
                model.SerializeToString(), options, providers=["CPUExecutionProvider"]
            )
        except Exception as error:  # its exceptions have no base of their own
            raise SourceError(f"{path}: ONNX Runtime cannot load it: {error}") from error
        constants = {tensor.name for tensor in model.graph.initializer}
        inputs = [value.name for value in model.graph.input if value.name not in constants]
        self._input = inputs[0]
        kind = next(i.type for i in self._session.get_inputs() if i.name == self._input)
        self._type = _INPUT_TYPES.get(kind, np.float32)

    def run(self, pixels: np.ndarray) -> dict[str, np.ndarray]:
        """All tensors for an input of (1, channels, height, width)."""
        if self._type == np.uint8:
            pixels = np.rint(pixels)
        try:
            values = self._session.run(self.tensors, {self._input: pixels.astype(self._type)})
        except Exception as error:
            raise SourceError(f"{self._path}: ONNX Runtime cannot run it: {error}") from error
        return dict(zip(self.tensors, values))


class Source(Protocol):
    """What runs a source network and fetches some of its tensors."""

    tensors: list[str]

    def run(self, pixels: np.ndarray) -> dict[str, np.ndarray]:
        """All of them for an input of (1, channels, height, width)."""


def compare(
    source: Source,
    model: Path,
    recipe: Recipe,
    visible: dict[str, Value],
    tables: set[str] = frozenset(),
    mode: Mode = Mode.CPU,
    inputs: Sequence[np.ndarray] = (),
) -> list[Difference]:
    """The differences of all tensors that the source was told to fetch, worst first.

    tables: which of them are detections, compared row by row
    inputs: the pictures to run, bytes of (height, width, channels); `pictures` where there are none
    """
    errors = dict.fromkeys(source.tensors, 0.0)
    lows = dict.fromkeys(source.tensors, np.inf)
    highs = dict.fromkeys(source.tensors, -np.inf)
    with Network(model) as network:
        network.set_up(mode)
        for picture in inputs or pictures(*network.input_shape[2:]):
            wanted = source.run(source_pixels(picture, recipe))
            network.run(picture)
            for name, expected in wanted.items():
                value = visible[name]
                got = network.hidden(value.blob)
                if name in tables:
                    errors[name] = max(errors[name], table_error(got, expected))
                    lows[name], highs[name] = 0.0, 1.0
                    continue
                if not got.size == expected.size == np.prod(value.shape):
                    raise SourceError(
                        f"{name}: the source has {expected.size} values and the model {got.size};"
                        " it is not the model's source"
                    )
                got = to_source_order(value, got)
                error = np.abs(got.astype(np.float64) - expected.reshape(value.shape)).max()
                # A NaN anywhere is the largest error there is.
                errors[name] = max(errors[name], float(np.nan_to_num(error, nan=np.inf)))
                lows[name] = min(lows[name], float(expected.min()))
                highs[name] = max(highs[name], float(expected.max()))
    found = [Difference(name, errors[name], highs[name] - lows[name]) for name in source.tensors]
    return sorted(found, key=lambda difference: -difference.relative)


def table_error(got: np.ndarray, expected: np.ndarray) -> float:
    """The largest difference of scores and corners between rows of the same label, in parts of
    the row's greatest corner where that is beyond the image.

    Boxes that compete narrowly may be kept or not, so one row in a hundred may have no partner.
    """
    got, expected = (np.asarray(t, np.float64).reshape(-1, 7) for t in (got, expected))
    got, expected = got[got[:, 2] > 0], expected[expected[:, 2] > 0]
    if len(expected) == 0 or len(got) == 0:
        return 0.0 if len(got) == len(expected) else float("inf")
    nearest = np.empty(len(expected))
    for i, row in enumerate(expected):
        others = got[got[:, 1] == row[1]]
        distances = np.abs(others[:, 2:] - row[2:]).max(axis=1) / max(1.0, np.abs(row[3:]).max())
        nearest[i] = distances.min(initial=np.inf)
    matched = nearest <= TOLERANCE_WITH_NORMALISATION
    lost = max((~matched).sum(), abs(len(got) - len(expected)))
    if lost > MOST_LOST_ROWS * len(expected):
        return float("inf")
    return float(nearest[matched].max())
