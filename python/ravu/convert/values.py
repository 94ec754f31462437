"""How a tensor of the source lies in the engine: `Value`.

The engine's tensors are interleaved, (batch, height, width, channels); a source's are channel-major
and of any rank. A `Value` says which engine tensor holds a source tensor and in what order, and
carries operations that are still pending because whoever reads it may absorb them.
"""

from __future__ import annotations

import math
from dataclasses import dataclass, replace

import numpy as np

Dims = tuple[int, int, int, int]


@dataclass(frozen=True)
class Value:
    """blob:   the engine's tensor
    dims:   its dims: batch, height, width, channels
    shape:  the source tensor's shape
    planar: whether the source's values, in their order, are those of dims read channel after
            channel; otherwise they are in the engine's own order
    at_least_zero: whether no value is negative
    select: pending choice of channels: for each of the source's channels, which of the blob's it
            is. Of more than one axis where the source has split its channel axis
    affine: pending (scale, shift) of each of the source's channels
    pad:    pending border of zeros: top, left, bottom, right
    """

    blob: str
    dims: Dims
    shape: tuple[int, ...]
    planar: bool = True
    at_least_zero: bool = False
    select: np.ndarray | None = None
    affine: tuple[np.ndarray, np.ndarray] | None = None
    pad: tuple[int, int, int, int] | None = None

    @property
    def pending(self) -> bool:
        return self.select is not None or self.affine is not None or self.pad is not None

    @property
    def is_image(self) -> bool:
        """Whether the source tensor is (batch, channels, height, width) of the engine's dims."""
        n, h, w, c = self.dims
        return self.planar and self.shape == (n, c, h, w) and not self.pending

    @property
    def is_vector(self) -> bool:
        """Whether there is one pixel, so that both orders are the same."""
        return self.dims[1] == self.dims[2] == 1 and not self.pending

    def reshaped(self, shape: tuple[int, ...]) -> Value:
        return replace(self, shape=shape)


def image_shape(value: Value) -> tuple[int, int, int, int]:
    """The source's (batch, channels, height, width), with what is pending."""
    n, h, w, c = value.dims
    if value.select is not None:
        c = value.select.size
    if value.pad is not None:
        h, w = h + value.pad[0] + value.pad[2], w + value.pad[1] + value.pad[3]
    return n, c, h, w


def to_source_order(value: Value, tensor: np.ndarray) -> np.ndarray:
    """The values of the engine's tensor in the source's order and shape."""
    values = tensor.reshape(value.dims)
    if value.planar:
        values = values.transpose(0, 3, 1, 2)
    return values.reshape(value.shape)


def dims_of(shape: tuple[int, ...]) -> tuple[Dims, bool]:
    """Engine dims for a source shape that nothing else is known of, and whether they are planar."""
    if len(shape) == 4:
        n, c, h, w = shape
        return (n, h, w, c), True
    batch = shape[0] if shape else 1
    return (batch, 1, 1, math.prod(shape[1:])), len(shape) == 2
