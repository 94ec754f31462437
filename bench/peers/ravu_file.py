"""A graph as a model file of this engine, built with the Python package as its users would.

Everything is a layer of the engine's own; only a dilated convolution becomes, as the converter does
it, a larger kernel with zeros in it.
"""

from __future__ import annotations

from pathlib import Path

import numpy as np
from graph import Graph, Node
from ravu.model_file import (
    Concat,
    Conv,
    EltWise,
    Flatten,
    FullyConnected,
    GroupedConv,
    L2Norm,
    Layer,
    Lrn,
    Model,
    Pool,
    Relu,
    Reshape,
    Softmax,
)

Weights = dict[str, np.ndarray]


def write_ravu(graph: Graph, weights: Weights, path: Path) -> None:
    channels, size, _ = graph.shapes["data"]
    model = Model(input_size=size, image_size=size, input_channels=channels)
    for node in graph.nodes:
        if node.kind == "rows":
            _append_rows(model, node, graph)
            continue
        model.append(_layer(node, graph, weights), node.name, node.inputs)
        if node.kind == "add" or node.attributes.get("relu"):
            model.append(Relu(), node.name)
    model.write(path)


def _layer(node: Node, graph: Graph, weights: Weights) -> Layer:
    a = node.attributes
    if node.kind == "conv":
        return _conv(node, weights)
    if node.kind == "dense":
        return _dense(node, graph.shapes[node.inputs[0]], weights)
    if node.kind == "max_pool":
        return Pool(size=a["size"], stride=a["stride"], padding_w=a["pad"], padding_h=a["pad"])
    if node.kind == "mean":
        return Pool(size=a["size"], stride=1, mode="avg")
    if node.kind == "lrn":
        return Lrn(size=a["size"], k=a["k"], alpha=a["alpha"], beta=a["beta"])
    if node.kind == "normalize":
        return L2Norm(scale=np.float32([a["scale"]]), channel_shared=True)
    return {"add": EltWise, "concat": Concat, "softmax": Softmax}[node.kind]()


def _conv(node: Node, weights: Weights) -> Layer:
    a = node.attributes
    kernels = np.ascontiguousarray(weights[node.name + ".weight"].transpose(0, 2, 3, 1))
    bias = weights[node.name + ".bias"]
    if a["dilation"] > 1:
        kernels = _spread(kernels, a["dilation"])
    geometry = {"stride": a["stride"], "padding": a["pad"]}
    if a["groups"] == 1:
        return Conv(kernels=kernels, bias=bias, **geometry)
    shares = np.split(kernels, a["groups"]), np.split(bias, a["groups"])
    return GroupedConv(kernels=shares[0], biases=shares[1], **geometry)


def _spread(kernels: np.ndarray, dilation: int) -> np.ndarray:
    outputs, size, _, inputs = kernels.shape
    extent = dilation * (size - 1) + 1
    wide = np.zeros((outputs, extent, extent, inputs), np.float32)
    wide[:, ::dilation, ::dilation] = kernels
    return wide


def _dense(node: Node, shape: tuple[int, ...], weights: Weights) -> Layer:
    """The matrix's rows in the order row, column, channel."""
    matrix = weights[node.name + ".weight"].reshape(-1, *shape).transpose(2, 3, 1, 0)
    matrix = np.ascontiguousarray(matrix.reshape(-1, matrix.shape[-1]))
    return FullyConnected(weights=matrix, bias=weights[node.name + ".bias"])


def _append_rows(model: Model, node: Node, graph: Graph) -> None:
    """Channels are innermost, so a head's values lie in the table's order already."""
    flat = [model.append(Flatten(), f"{x}_flat", x) for x in node.inputs]
    joined = model.append(Concat(), f"{node.name}_joined", flat)
    rows, values = graph.shapes[node.name]
    model.append(Reshape(dims=(0, rows, 1, values)), node.name, joined)
