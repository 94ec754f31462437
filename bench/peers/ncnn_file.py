"""A graph as ncnn's pair of files: the layers as text, the weights as numbers.

Rectifiers are part of the layer before them, as ncnn's own optimiser leaves them. A tensor that
several layers read goes through a Split layer, as that format demands.
"""

from __future__ import annotations

from collections import Counter
from pathlib import Path

import numpy as np
from graph import Graph, Node

Weights = dict[str, np.ndarray]

MAGIC = 7767517
SINGLE_PRECISION = np.zeros(1, np.uint32)


def write_ncnn(graph: Graph, weights: Weights, param: Path, binary: Path) -> None:
    writer = _Writer(graph, weights)
    channels, size, _ = graph.shapes["data"]
    writer.line("Input", "data", [], f"0={size} 1={size} 2={channels}")
    for node in graph.nodes:
        getattr(writer, node.kind)(node)
    header = f"{MAGIC}\n{len(writer.lines)} {writer.tensors}\n"
    param.write_text(header + "".join(writer.lines), encoding="ascii")
    with binary.open("wb") as file:
        for values in writer.values:
            file.write(np.ascontiguousarray(values).tobytes())


class _Writer:
    """One method per kind of node."""

    def __init__(self, graph: Graph, weights: Weights) -> None:
        self.weights = weights
        self.readers = Counter(x for node in graph.nodes for x in node.inputs)
        self.taken: Counter[str] = Counter()
        self.lines: list[str] = []
        self.values: list[np.ndarray] = []
        self.tensors = 0

    def line(self, layer: str, name: str, inputs: list[str], parameters: str = "") -> str:
        """One layer, and behind it the Split for its readers."""
        read = [self._reading(x) for x in inputs]
        self._write(layer, name, read, [name], parameters)
        if self.readers[name] > 1:
            copies = [f"{name}_{i}" for i in range(self.readers[name])]
            self._write("Split", name + "_split", [name], copies, "")
        return name

    def inner(self, layer: str, name: str, inputs: list[str], parameters: str = "") -> str:
        """A layer whose output only the next one reads."""
        self._write(layer, name, [self._reading(x) for x in inputs], [name], parameters)
        return name

    def _write(
        self, layer: str, name: str, inputs: list[str], outputs: list[str], parameters: str
    ) -> None:
        counts = f"{len(inputs)} {len(outputs)}"
        names = " ".join(inputs + outputs)
        self.lines.append(f"{layer} {name} {counts} {names} {parameters}\n")
        self.tensors += len(outputs)

    def _reading(self, x: str) -> str:
        if self.readers[x] < 2:
            return x
        self.taken[x] += 1
        return f"{x}_{self.taken[x] - 1}"

    def _take_weights(self, name: str) -> int:
        weight, bias = self.weights[name + ".weight"], self.weights[name + ".bias"]
        self.values += [SINGLE_PRECISION, weight, bias]
        return weight.size

    def conv(self, node: Node) -> None:
        a = node.attributes
        count = self._take_weights(node.name)
        parameters = (
            f"0={node.shape[0]} 1={a['kernel']} 2={a['dilation']} 3={a['stride']} 4={a['pad']} "
            f"5=1 6={count}"
        )
        layer = "Convolution"
        if a["groups"] > 1:
            layer, parameters = "ConvolutionDepthWise", f"{parameters} 7={a['groups']}"
        self.line(layer, node.name, node.inputs, f"{parameters} 9={int(a['relu'])}")

    def dense(self, node: Node) -> None:
        count = self._take_weights(node.name)
        parameters = f"0={node.shape[0]} 1=1 2={count} 9={int(node.attributes['relu'])}"
        self.line("InnerProduct", node.name, node.inputs, parameters)

    def max_pool(self, node: Node) -> None:
        a = node.attributes
        parameters = f"0=0 1={a['size']} 2={a['stride']} 3={a['pad']} 5=0"
        self.line("Pooling", node.name, node.inputs, parameters)

    def mean(self, node: Node) -> None:
        self.line("Pooling", node.name, node.inputs, "0=1 4=1")

    def lrn(self, node: Node) -> None:
        a = node.attributes
        parameters = f"0=0 1={a['size']} 2={a['alpha']} 3={a['beta']} 4={a['k']}"
        self.line("LRN", node.name, node.inputs, parameters)

    def normalize(self, node: Node) -> None:
        self.values.append(np.float32([node.attributes["scale"]]))
        self.line("Normalize", node.name, node.inputs, "0=0 1=1 2=1e-10 3=1 4=1")

    def add(self, node: Node) -> None:
        total = self.inner("BinaryOp", node.name + "_sum", node.inputs, "0=0")
        self.line("ReLU", node.name, [total])

    def concat(self, node: Node) -> None:
        self.line("Concat", node.name, node.inputs, "0=0")

    def softmax(self, node: Node) -> None:
        axis = 1 if len(node.shape) == 2 else 0
        self.line("Softmax", node.name, node.inputs, f"0={axis} 1=1")

    def rows(self, node: Node) -> None:
        flat = []
        for x in node.inputs:
            moved = self.inner("Permute", x + "_moved", [x], "0=3")
            flat.append(self.inner("Flatten", x + "_flat", [moved]))
        joined = self.inner("Concat", node.name + "_joined", flat, "0=0")
        rows, values = node.shape
        self.line("Reshape", node.name, [joined], f"0={values} 1={rows}")
