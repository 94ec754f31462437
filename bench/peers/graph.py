"""A network as a list of nodes with shapes: the one description of which every file is made.

Tensors have no batch axis here: (channels, height, width), or (rows, values) behind `rows`. Batch
normalisation does not occur: networks are described as they are deployed, folded into convolutions.
"""

from __future__ import annotations

import math
from dataclasses import dataclass, field
from typing import Any

import numpy as np


@dataclass
class Node:
    """One operation. `attributes` are the arguments of the Graph's method of the same name."""

    kind: str
    name: str
    inputs: list[str]
    shape: tuple[int, ...]
    attributes: dict[str, Any] = field(default_factory=dict)


class Graph:
    """A network in the making. Each method appends a node and returns its name.

    weights: of each weighted node the shapes of its kernels and the spread of their values: their
             variance is spread / (products of one sum), 2 keeps values behind ReLU as they are
    """

    def __init__(self, name: str, size: int, channels: int = 3) -> None:
        self.name = name
        self.nodes: list[Node] = []
        self.shapes: dict[str, tuple[int, ...]] = {"data": (channels, size, size)}
        self.weights: dict[str, tuple[tuple[int, ...], float]] = {}
        self.multiply_adds = 0

    @property
    def outputs(self) -> list[str]:
        """The tensors that no node reads, in order."""
        read = {name for node in self.nodes for name in node.inputs}
        return [node.name for node in self.nodes if node.name not in read]

    def conv(
        self,
        x: str,
        outputs: int,
        kernel: int,
        *,
        stride: int = 1,
        pad: int = 0,
        groups: int = 1,
        dilation: int = 1,
        relu: bool = True,
        spread: float = 2.0,
    ) -> str:
        """A convolution with bias. Kernels: (outputs, inputs of a group, rows, columns)."""
        inputs, height, _ = self.shapes[x]
        side = (height + 2 * pad - dilation * (kernel - 1) - 1) // stride + 1
        kernels = (outputs, inputs // groups, kernel, kernel)
        attributes = {"kernel": kernel, "stride": stride, "pad": pad, "groups": groups}
        attributes |= {"dilation": dilation, "relu": relu}
        self.multiply_adds += math.prod(kernels) * side * side
        return self._weighted("conv", x, (outputs, side, side), kernels, spread, attributes)

    def dense(self, x: str, outputs: int, *, relu: bool = True, spread: float = 2.0) -> str:
        """A fully connected layer with bias. Weights: (outputs, channels x height x width)."""
        matrix = (outputs, math.prod(self.shapes[x]))
        self.multiply_adds += math.prod(matrix)
        return self._weighted("dense", x, (outputs, 1, 1), matrix, spread, {"relu": relu})

    def max_pool(self, x: str, size: int, stride: int, pad: int = 0) -> str:
        """Sizes are rounded up; windows are cut at the border."""
        channels, height, _ = self.shapes[x]
        side = math.ceil((height + 2 * pad - size) / stride) + 1
        attributes = {"size": size, "stride": stride, "pad": pad}
        return self._append("max_pool", [x], (channels, side, side), attributes)

    def mean(self, x: str) -> str:
        """The average of each channel."""
        return self._append("mean", [x], (self.shapes[x][0], 1, 1), {"size": self.shapes[x][1]})

    def lrn(self, x: str, size: int = 5, alpha: float = 1e-4, beta: float = 0.75) -> str:
        """x / (1 + alpha / size * sum of squares over `size` neighbouring channels) ^ beta."""
        attributes = {"size": size, "alpha": alpha, "beta": beta, "k": 1.0}
        return self._append("lrn", [x], self.shapes[x], attributes)

    def normalize(self, x: str, scale: float) -> str:
        """Each pixel's channels divided by their length, times `scale`."""
        return self._append("normalize", [x], self.shapes[x], {"scale": scale})

    def add(self, x: str, y: str) -> str:
        """The sum, then ReLU."""
        return self._append("add", [x, y], self.shapes[x], {})

    def concat(self, *xs: str) -> str:
        channels = sum(self.shapes[x][0] for x in xs)
        return self._append("concat", list(xs), (channels, *self.shapes[xs[0]][1:]), {})

    def softmax(self, x: str) -> str:
        """Over the channels, or over the values of each row."""
        return self._append("softmax", [x], self.shapes[x], {})

    def rows(self, xs: list[str], values: int) -> str:
        """A detector's heads as one table: row, column, box of each map in turn, `values` each."""
        count = sum(math.prod(self.shapes[x]) for x in xs) // values
        return self._append("rows", list(xs), (count, values), {"values": values})

    def draw_weights(self, seed: int) -> dict[str, np.ndarray]:
        """Seeded values: NAME.weight and NAME.bias of each weighted node, single precision."""
        random = np.random.default_rng(seed)
        drawn = {}
        for name, (shape, spread) in self.weights.items():
            deviation = math.sqrt(spread / math.prod(shape[1:]))
            values = random.standard_normal(shape, dtype=np.float32) * np.float32(deviation)
            drawn[name + ".weight"] = values
            drawn[name + ".bias"] = random.uniform(-0.1, 0.1, shape[0]).astype(np.float32)
        return drawn

    def _weighted(
        self,
        kind: str,
        x: str,
        shape: tuple[int, ...],
        weights: tuple[int, ...],
        spread: float,
        attributes: dict[str, Any],
    ) -> str:
        name = self._append(kind, [x], shape, attributes)
        self.weights[name] = (weights, spread)
        return name

    def _append(
        self, kind: str, inputs: list[str], shape: tuple[int, ...], attributes: dict[str, Any]
    ) -> str:
        name = f"{kind}{len(self.nodes) + 1}"
        self.nodes.append(Node(kind, name, inputs, shape, attributes))
        self.shapes[name] = shape
        return name
