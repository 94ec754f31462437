"""Every operator of the table, converted and verified against ONNX Runtime."""

import numpy as np
import onnx
import pytest
from ravu import Network
from ravu.convert import convert
from ravu.convert.mapping import OPERATORS
from ravu.model_file import Model

from sources import PLAIN, SIGNED, Source

WINDOW = {"kernel_shape": [3, 3], "strides": [2, 2]}


def unary(op, *constants, **attributes):
    return lambda s: s(op, s.conv("image", 3, 4), *(s.constant(c) for c in constants), **attributes)


def with_constant(op, *shape, first=False):
    def build(s):
        x, c = s.conv("image", 3, 4), s.constant(0.5 + s.rng.random(shape))
        return s(op, *((c, x) if first else (x, c)))

    return build


def pair(op):
    return lambda s: s(op, s.conv("image", 3, 4), s.conv("image", 3, 4))


def vector(s, op, *inputs, **attributes):
    x = s("Flatten", s("GlobalAveragePool", s.conv("image", 3, 4)))
    return s(op, x, *inputs, **attributes)


CASES = {
    "Abs": [unary("Abs")],
    "Add": [
        pair("Add"),
        with_constant("Add", 4, 1, 1),
        with_constant("Add", 1, 4, 9, 9),
        with_constant("Add", 1),
        with_constant("Add", 9),
    ],
    "AveragePool": [
        lambda s: s("AveragePool", "image", **WINDOW),
        lambda s: s("AveragePool", "image", ceil_mode=1, kernel_shape=[2, 2], strides=[2, 2]),
        lambda s: s("AveragePool", "image", kernel_shape=[3, 2], strides=[1, 1], pads=[1, 0, 1, 1]),
        lambda s: s(
            "AveragePool", "image", kernel_shape=[5, 5], pads=[2, 2, 2, 2], count_include_pad=1
        ),
    ],
    "BatchNormalization": [
        lambda s: s(
            "BatchNormalization", "image", *(s.constant(0.5 + s.rng.random(3)) for _ in range(4))
        )
    ],
    "Cast": [unary("Cast", to=1)],
    "Clip": [
        unary("Clip", -0.2, 0.7),
        lambda s: s("Clip", s.conv("image", 3, 4), "", s.constant(0.3)),
        unary("Clip", 0.1),
    ],
    "Concat": [
        lambda s: s("Concat", s.conv("image", 3, 4), "image", axis=1),
        lambda s: s("Concat", vector(s, "Identity"), vector(s, "Relu"), axis=1),
    ],
    "Conv": [lambda s: s.conv("image", 3, 6, (3, 3), groups=3, pads=[1, 1, 1, 1])],
    "Div": [with_constant("Div", 4, 1, 1)],
    "Dropout": [unary("Dropout")],
    "Flatten": [lambda s: s("Flatten", s.conv("image", 3, 4))],
    "Gather": [lambda s: s("Gather", s.conv("image", 3, 4), s.ints(2, 0, -1), axis=1)],
    "Gemm": [
        lambda s: vector(s, "Gemm", s.weights(4, 5), s.weights(5), alpha=0.5, beta=2.0),
        lambda s: vector(s, "Gemm", s.weights(5, 4), transB=1),
    ],
    "GlobalAveragePool": [unary("GlobalAveragePool")],
    "GlobalMaxPool": [unary("GlobalMaxPool")],
    "HardSigmoid": [unary("HardSigmoid")],
    "Identity": [unary("Identity")],
    "LRN": [lambda s: s("LRN", s.conv("image", 3, 8), size=5, alpha=0.7, beta=0.6, bias=1.5)],
    "LeakyRelu": [unary("LeakyRelu", alpha=0.2), unary("LeakyRelu", alpha=-0.5)],
    "LpNormalization": [unary("LpNormalization", axis=1)],
    "MatMul": [lambda s: s("Add", vector(s, "MatMul", s.weights(4, 5)), s.weights(5))],
    "Max": [pair("Max"), with_constant("Max", 1)],
    "MaxPool": [
        lambda s: s("MaxPool", "image", **WINDOW),
        lambda s: s("MaxPool", "image", ceil_mode=1, kernel_shape=[2, 2], strides=[2, 2]),
        lambda s: s("MaxPool", "image", kernel_shape=[2, 2], strides=[2, 2]),
        lambda s: s("MaxPool", "image", auto_pad="SAME_UPPER", kernel_shape=[2, 2], strides=[2, 2]),
        lambda s: s("MaxPool", "image", pads=[0, 0, 1, 1], **WINDOW),
    ],
    "Min": [pair("Min"), with_constant("Min", 1)],
    "Mul": [
        with_constant("Mul", 4, 1, 1),
        with_constant("Mul", 1, first=True),
        with_constant("Mul", 1, 1, 9, 9),
    ],
    "Neg": [unary("Neg")],
    "PRelu": [
        lambda s: s("PRelu", s.conv("image", 3, 4), s.weights(4, 1, 1)),
        lambda s: s("PRelu", s.conv("image", 3, 4), s.weights(1)),
    ],
    "Pad": [
        lambda s: s.conv(s("Pad", "image", s.ints(0, 0, 1, 0, 0, 0, 0, 1)), 3, 4, (2, 2)),
        lambda s: s("Pad", "image", s.ints(0, 0, 1, 2, 0, 0, 2, 1)),
    ],
    "Pow": [unary("Pow", 2.0)],
    "Reciprocal": [lambda s: s("Reciprocal", s("Add", "image", s.constant(0.5)))],
    "ReduceMax": [lambda s: s("ReduceMax", s.conv("image", 3, 4), axes=[2, 3], keepdims=0)],
    "ReduceMean": [
        lambda s: s("ReduceMean", s.conv("image", 3, 4), axes=[2, 3], keepdims=0),
        lambda s: s("ReduceMean", s.conv("image", 3, 4), axes=[-1, -2]),
    ],
    "Relu": [unary("Relu")],
    "Reshape": [lambda s: s("Reshape", s.conv("image", 3, 4), s.ints(0, -1))],
    "Slice": [
        lambda s: s("Slice", s.conv("image", 3, 6), s.ints(1), s.ints(2**60), s.ints(1), s.ints(2))
    ],
    "Softmax": [
        lambda s: vector(s, "Softmax", axis=1),
        unary("Softmax", axis=1),
        lambda s: s(
            "Softmax",
            s(
                "Reshape",
                s("Transpose", s.conv("image", 3, 6), perm=[0, 2, 3, 1]),
                s.ints(1, -1, 3),
            ),
            axis=-1,
        ),
    ],
    "Split": [
        lambda s: s(
            "Concat",
            *s("Split", s.conv("image", 3, 6), s.ints(1, 5), axis=1, outputs=2)[::-1],
            axis=1,
        )
    ],
    "Sqrt": [lambda s: s("Sqrt", "image")],
    "Squeeze": [lambda s: s("Squeeze", s("GlobalMaxPool", s.conv("image", 3, 4)), s.ints(2, 3))],
    "Sub": [pair("Sub"), with_constant("Sub", 4, 1, 1), with_constant("Sub", 1, first=True)],
    "Sum": [lambda s: s("Sum", *(s.conv("image", 3, 4) for _ in range(3)))],
    "Transpose": [
        lambda s: s("Transpose", s.conv("image", 3, 4), perm=[0, 2, 3, 1]),
        lambda s: s(
            "Relu",
            s(
                "Transpose",
                s("Transpose", s.conv("image", 3, 4), perm=[0, 2, 3, 1]),
                perm=[0, 3, 1, 2],
            ),
        ),
    ],
    "Unsqueeze": [lambda s: s("Unsqueeze", vector(s, "Relu"), s.ints(2, 3))],
}


def test_every_operator_has_a_case():
    # Those of detectors come from Caffe only.
    assert set(CASES) | {"DetectionOutput", "PriorBox"} == set(OPERATORS)


@pytest.mark.parametrize(
    "build", [pytest.param(b, id=f"{op}-{i}") for op, c in CASES.items() for i, b in enumerate(c)]
)
def test_the_operator_computes_the_same(tmp_path, build):
    source = Source()
    report = source.convert(tmp_path, build(source))
    assert report.differences and report.differences[0].relative < 1e-3


@pytest.mark.parametrize("opset", [13, 18])
def test_a_division_by_the_length_is_a_normalisation(tmp_path, opset):
    source = Source(opset=opset)
    x = source.conv("image", 3, 4)
    axes = {"axes": [1]} if opset < 18 else {}
    norm = source("ReduceL2", x, *([] if axes else [source.ints(1)]), keepdims=1, **axes)
    norm = source("Expand", source("Clip", norm, source.constant(1e-12)), source("Shape", x))
    source.convert(tmp_path, source("Div", x, norm))
    assert "normalize" in {layer.keyword for layer in Model.read(tmp_path / "out.ravu").layers}


@pytest.mark.parametrize("opset", [7, 9, 11, 18, 21])
def test_all_operator_sets_are_read(tmp_path, opset):
    source = Source(opset=opset)
    x = source("Relu", source.conv("image", 3, 4, (3, 3), pads=[1, 1, 1, 1]))
    if opset < 11:
        x = source("Clip", x, min=0.1, max=0.5)
    else:
        x = source("Clip", x, source.constant(0.1), source.constant(0.5))
    axes = {"axes": [2, 3]} if opset < 18 else {}
    x = source("ReduceMean", x, *([] if axes else [source.ints(2, 3)]), keepdims=0, **axes)
    source.convert(tmp_path, source("Softmax", x, axis=1))


def test_shapes_that_the_network_computes_are_folded(tmp_path):
    source = Source()
    x = source.conv("image", 3, 4)
    batch = source("Gather", source("Shape", x), source.constant(0, np.int64), axis=0)
    batch = source("Unsqueeze", batch, source.ints(0))
    shape = source("Concat", batch, source.ints(-1), axis=0)
    source.convert(tmp_path, source("Relu", source("Reshape", x, shape)))


def test_outputs_keep_their_order_names_and_values(tmp_path):
    source = Source()
    x = source("Relu", source.conv("image", 3, 4))
    y = source("Relu", source.conv(x, 4, 2))
    report = source.convert(tmp_path, y, x, options=SIGNED)
    assert list(report.outputs) == [y, x]
    with Network(tmp_path / "out.ravu") as network:
        outputs = network.run(np.zeros((9, 9, 3), np.uint8))
        assert len(outputs) == 2
        for output in report.outputs.values():
            assert any(np.array_equal(network.hidden(output), o) for o in outputs)


def test_nodes_that_no_output_needs_are_left_out(tmp_path):
    source = Source()
    y = source.conv("image", 3, 4)
    source("Sigmoid", y)
    assert source.convert(tmp_path, y, options=PLAIN).layers == 1


def test_tensor_names_become_unique_printable_ones(tmp_path):
    source = Source()
    y = source.conv("image", 3, 4)
    source.nodes[-1].output[0] = "wärme\n"
    z = source.conv("wärme\n", 4, 4)
    assert source.convert(tmp_path, z).outputs == {z: z}
    with Network(tmp_path / "out.ravu") as network:
        network.run(np.zeros((9, 9, 3), np.uint8))
        assert network.hidden("w_rme_").any()
    assert y


def test_a_source_that_takes_bytes_is_fed_bytes(tmp_path):
    source = Source()
    y = source.conv(source("Cast", "image", to=1), 3, 4, (3, 3), pads=[1, 1, 1, 1])
    model = source.model(y)
    model.graph.input[0].type.tensor_type.elem_type = onnx.TensorProto.UINT8
    path = tmp_path / "source.onnx"
    path.write_bytes(model.SerializeToString())
    report = convert(path, tmp_path / "out.ravu")
    assert report.recipe.range == 1 and report.differences
    assert Model.read(tmp_path / "out.ravu").layers[0].keyword == "conv"
