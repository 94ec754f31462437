"""Small ONNX models for the converter's tests, and how they are converted."""

from pathlib import Path

import numpy as np
import onnx
import onnx.shape_inference
from onnx import TensorProto, helper, numpy_helper
from ravu.convert import Options, Recipe, convert

PLAIN = Options(recipe=Recipe(range=255.0))
SIGNED = Options(recipe=Recipe(range=255.0, mean=(0.5,)))
"""Pixels from -0.5 to 0.5."""


class Source:
    """An ONNX model in the making: calling it appends a node and gives its output's name."""

    def __init__(self, channels=3, size=9, *, opset=13, seed=0):
        self.rng = np.random.default_rng(seed)
        self.opset = opset
        self.shape = [1, channels, size, size]
        self.nodes, self.constants = [], []

    def constant(self, values, dtype=np.float32):
        name = f"constant{len(self.constants)}"
        self.constants.append(numpy_helper.from_array(np.asarray(values, dtype), name))
        return name

    def weights(self, *shape):
        return self.constant(self.rng.normal(size=shape))

    def ints(self, *values):
        return self.constant(values, np.int64)

    def __call__(self, op, *inputs, outputs=1, **attributes):
        names = [f"{op.lower()}{len(self.nodes)}_{i}" for i in range(outputs)]
        node = helper.make_node(op, inputs, names, name=f"{op}{len(self.nodes)}", **attributes)
        self.nodes.append(node)
        return names[0] if outputs == 1 else names

    def conv(self, x, channels, outputs, kernel=(1, 1), *, bias=True, groups=1, **attributes):
        inputs = [x, self.weights(outputs, channels // groups, *kernel)]
        if bias:
            inputs.append(self.weights(outputs))
        return self("Conv", *inputs, group=groups, **attributes)

    def model(self, *outputs):
        image = helper.make_tensor_value_info("image", TensorProto.FLOAT, self.shape)
        described = [helper.make_empty_tensor_value_info(name) for name in outputs]
        for value in described:
            value.type.tensor_type.elem_type = TensorProto.FLOAT
        graph = helper.make_graph(self.nodes, "test", [image], described, self.constants)
        opsets = [helper.make_opsetid("", self.opset)]
        model = helper.make_model(graph, opset_imports=opsets, ir_version=8)
        model = onnx.shape_inference.infer_shapes(model)  # gives most outputs their shapes
        for value in model.graph.output:
            if not value.type.tensor_type.HasField("shape"):
                value.type.tensor_type.shape.dim.add().dim_param = "unknown"
        return model

    def save(self, folder, *outputs) -> Path:
        path = Path(folder) / "source.onnx"
        onnx.save_model(self.model(*outputs), str(path))
        return path

    def convert(self, folder, *outputs, options=PLAIN):
        """Convert and verify. Raises when the result does not compute the same."""
        return convert(self.save(folder, *outputs), Path(folder) / "out.ravu", options)
