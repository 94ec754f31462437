"""A graph as an ONNX file of a fixed batch, operator set 13."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import numpy as np
import onnx
from graph import Graph, Node
from onnx import TensorProto, helper, numpy_helper

Weights = dict[str, np.ndarray]


def write_onnx(graph: Graph, weights: Weights, batch: int, path: Path) -> None:
    writer = _Writer(batch)
    for name, values in weights.items():
        writer.constants.append(numpy_helper.from_array(values, name))
    for node in graph.nodes:
        getattr(writer, node.kind)(node)

    def declared(name: str) -> onnx.ValueInfoProto:
        shape = (batch, *graph.shapes[name])
        return helper.make_tensor_value_info(name, TensorProto.FLOAT, shape)

    body = helper.make_graph(
        writer.nodes,
        graph.name,
        [declared("data")],
        [declared(name) for name in graph.outputs],
        writer.constants,
    )
    model = helper.make_model(body, opset_imports=[helper.make_opsetid("", 13)], ir_version=8)
    onnx.save(model, path)


class _Writer:
    """One method per kind of node."""

    def __init__(self, batch: int) -> None:
        self.batch = batch
        self.nodes: list[onnx.NodeProto] = []
        self.constants: list[onnx.TensorProto] = []

    def conv(self, node: Node) -> None:
        a = node.attributes
        self._with_relu(
            "Conv",
            [node.inputs[0], node.name + ".weight", node.name + ".bias"],
            node,
            kernel_shape=[a["kernel"]] * 2,
            strides=[a["stride"]] * 2,
            pads=[a["pad"]] * 4,
            dilations=[a["dilation"]] * 2,
            group=a["groups"],
        )

    def dense(self, node: Node) -> None:
        flat = self._emit("Flatten", node.inputs, node.name + "_flat", axis=1)
        product = [flat, node.name + ".weight", node.name + ".bias"]
        result = self._emit("Gemm", product, node.name + "_product", transB=1)
        if node.attributes["relu"]:
            result = self._emit("Relu", [result], node.name + "_relu")
        self._reshape(result, (self.batch, *node.shape), node.name)

    def max_pool(self, node: Node) -> None:
        a = node.attributes
        self._emit(
            "MaxPool",
            node.inputs,
            node.name,
            kernel_shape=[a["size"]] * 2,
            strides=[a["stride"]] * 2,
            pads=[a["pad"]] * 4,
            ceil_mode=1,
        )

    def mean(self, node: Node) -> None:
        self._emit("GlobalAveragePool", node.inputs, node.name)

    def lrn(self, node: Node) -> None:
        a = node.attributes
        factors = {"alpha": a["alpha"], "beta": a["beta"], "bias": a["k"]}
        self._emit("LRN", node.inputs, node.name, size=a["size"], **factors)

    def normalize(self, node: Node) -> None:
        length = self._emit("ReduceL2", node.inputs, node.name + "_length", axes=[1], keepdims=1)
        unit = self._emit("Div", [node.inputs[0], length], node.name + "_unit")
        scale = np.float32([node.attributes["scale"]])
        self.constants.append(numpy_helper.from_array(scale, node.name + "_scale"))
        self._emit("Mul", [unit, node.name + "_scale"], node.name)

    def add(self, node: Node) -> None:
        self._emit("Add", node.inputs, node.name + "_sum")
        self._emit("Relu", [node.name + "_sum"], node.name)

    def concat(self, node: Node) -> None:
        self._emit("Concat", node.inputs, node.name, axis=1)

    def softmax(self, node: Node) -> None:
        self._emit("Softmax", node.inputs, node.name, axis=2 if len(node.shape) == 2 else 1)

    def rows(self, node: Node) -> None:
        tables = []
        for x in node.inputs:
            moved = self._emit("Transpose", [x], x + "_moved", perm=[0, 2, 3, 1])
            shape = (self.batch, -1, node.attributes["values"])
            tables.append(self._reshape(moved, shape, x + "_rows"))
        self._emit("Concat", tables, node.name, axis=1)

    def _with_relu(self, operator: str, inputs: list[str], node: Node, **attributes: Any) -> None:
        if not node.attributes["relu"]:
            self._emit(operator, inputs, node.name, **attributes)
            return
        self._emit(operator, inputs, node.name + "_sum", **attributes)
        self._emit("Relu", [node.name + "_sum"], node.name)

    def _reshape(self, x: str, shape: tuple[int, ...], name: str) -> str:
        self.constants.append(numpy_helper.from_array(np.int64(shape), name + "_shape"))
        return self._emit("Reshape", [x, name + "_shape"], name)

    def _emit(self, operator: str, inputs: list[str], output: str, **attributes: Any) -> str:
        self.nodes.append(helper.make_node(operator, inputs, [output], output, **attributes))
        return output
