"""Layers whose meaning is standard give what ONNX Runtime gives, on random shapes and values.

Needs the environment variable RAVU_LIBRARY, the path of the shared library.
"""

import numpy as np
import onnxruntime
import pytest
from engine import run
from onnx import TensorProto, helper, numpy_helper
from ravu.model_file import (
    BatchNorm,
    Concat,
    Conv,
    FullyConnected,
    GroupedConv,
    Model,
    Pool,
    PRelu,
    Scale,
    Softmax,
)

OPSET = 13
CASES = range(40)


def outside(operator, inputs, constants=(), **attributes):
    """One ONNX operator on arrays (batch, channels, ...): `inputs` are fed, `constants` built in."""
    names = [f"input{i}" for i in range(len(inputs))]
    fixed = [numpy_helper.from_array(c, f"constant{i}") for i, c in enumerate(constants)]
    node = helper.make_node(operator, names + [c.name for c in fixed], ["output"], **attributes)
    graph = helper.make_graph(
        [node],
        "one operator",
        [
            helper.make_tensor_value_info(name, TensorProto.FLOAT, array.shape)
            for name, array in zip(names, inputs)
        ],
        [helper.make_tensor_value_info("output", TensorProto.FLOAT, None)],
        fixed,
    )
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", OPSET)], ir_version=8)
    options = onnxruntime.SessionOptions()
    options.intra_op_num_threads = 1
    session = onnxruntime.InferenceSession(
        model.SerializeToString(), options, providers=["CPUExecutionProvider"]
    )
    return session.run(None, dict(zip(names, inputs)))[0]


def channels_first(images):
    return np.ascontiguousarray(images.transpose(0, 3, 1, 2))


def channels_last(images):
    return images.transpose(0, 2, 3, 1)


def one_layer(layer, size, channels):
    model = Model(input_size=size, image_size=size, input_channels=channels)
    model.append(layer, "output")
    return model


def assert_close(values, expected, tolerance):
    """No value is further away than `tolerance` times the root mean square."""
    assert values.shape == expected.shape
    rms = np.sqrt(np.mean(np.square(expected, dtype=np.float64)))
    assert np.abs(values - expected).max() <= tolerance * rms


class Random:
    def __init__(self, seed):
        self.generator = np.random.default_rng(seed)

    def int(self, least, greatest):
        return int(self.generator.integers(least, greatest, endpoint=True))

    def array(self, *shape):
        return self.generator.uniform(-1, 1, shape).astype(np.float32)


@pytest.mark.parametrize("seed", CASES)
def test_convolution(seed):
    random = Random(seed)
    size, channels, kernels = random.int(5, 24), random.int(1, 20), random.int(1, 20)
    kernel, stride, padding = random.int(1, 5), random.int(1, 3), random.int(0, 2)
    images = random.array(random.int(1, 3), size, size, channels)
    weights = random.array(kernels, kernel, kernel, channels)
    bias = random.array(kernels) if random.int(0, 1) else None
    layer = Conv(kernels=weights, bias=bias, stride=stride, padding=padding)
    expected = outside(
        "Conv",
        [channels_first(images)],
        [channels_first(weights)] + ([] if bias is None else [bias]),
        strides=[stride] * 2,
        pads=[padding] * 4,
    )
    assert_close(run(one_layer(layer, size, channels), images), channels_last(expected), 1e-3)


@pytest.mark.parametrize("seed", CASES)
def test_convolution_in_groups(seed):
    random = Random(seed)
    groups, inputs, outputs = random.int(2, 6), random.int(1, 5), random.int(1, 5)
    size, channels = random.int(5, 20), groups * inputs
    kernel, stride, padding = random.int(1, 5), random.int(1, 3), random.int(0, 2)
    images = random.array(random.int(1, 3), size, size, channels)
    weights = random.array(groups, outputs, kernel, kernel, inputs)
    biases = random.array(groups, outputs)
    layer = GroupedConv(kernels=weights, biases=biases, stride=stride, padding=padding)
    expected = outside(
        "Conv",
        [channels_first(images)],
        [channels_first(weights.reshape(-1, kernel, kernel, inputs)), biases.reshape(-1)],
        group=groups,
        strides=[stride] * 2,
        pads=[padding] * 4,
    )
    assert_close(run(one_layer(layer, size, channels), images), channels_last(expected), 1e-3)


# Windows that reach past the edge count in the engine's output size. Their maximum is over what is
# there, as outside; their average is the engine's own, so averages get sizes without such windows.
@pytest.mark.parametrize("mode", ["max", "avg"])
@pytest.mark.parametrize("seed", CASES)
def test_pooling_without_padding(seed, mode):
    random = Random(seed)
    kernel = random.int(1, 4)
    stride = random.int(1, kernel)
    size = kernel + stride * random.int(1, 8)
    if mode == "max":
        size += random.int(0, stride - 1)
    channels = random.int(1, 20)
    images = random.array(random.int(1, 3), size, size, channels)
    expected = outside(
        "MaxPool" if mode == "max" else "AveragePool",
        [channels_first(images)],
        kernel_shape=[kernel] * 2,
        strides=[stride] * 2,
        ceil_mode=int(mode == "max"),
    )
    layer = Pool(size=kernel, stride=stride, mode=mode)
    tolerance = 0 if mode == "max" else 1e-6
    assert_close(run(one_layer(layer, size, channels), images), channels_last(expected), tolerance)


@pytest.mark.parametrize("seed", CASES)
def test_fully_connected(seed):
    random = Random(seed)
    size, channels, outputs = random.int(1, 8), random.int(1, 20), random.int(1, 50)
    images = random.array(random.int(1, 4), size, size, channels)
    weights = random.array(size * size * channels, outputs)
    bias = random.array(outputs)
    expected = outside("Gemm", [images.reshape(len(images), -1)], [weights, bias])
    values = run(one_layer(FullyConnected(weights=weights, bias=bias), size, channels), images)
    assert_close(values.reshape(expected.shape), expected, 1e-3)
    turned = FullyConnected(weights=weights.T, bias=bias, weights_transposed=True)
    assert np.array_equal(run(one_layer(turned, size, channels), images), values)


@pytest.mark.parametrize("seed", CASES)
def test_batch_normalisation_and_scale(seed):
    random = Random(seed)
    size, channels = random.int(1, 12), random.int(1, 40)
    images = random.array(random.int(1, 3), size, size, channels)
    mean, scales, bias = (random.array(channels) for _ in range(3))
    divisor = random.array(channels) + np.float32(1.5)
    model = one_layer(BatchNorm(mean=mean, divisor=divisor), size, channels)
    model.append(Scale(scales=scales, bias=bias), "scaled")
    expected = outside(
        "BatchNormalization",
        [channels_first(images)],
        [scales, bias, mean, np.square(divisor)],
        epsilon=0.0,
    )
    assert_close(run(model, images), channels_last(expected), 1e-5)


@pytest.mark.parametrize("seed", CASES)
def test_parametric_relu(seed):
    random = Random(seed)
    size, channels = random.int(1, 12), random.int(1, 40)
    images = random.array(random.int(1, 3), size, size, channels)
    slopes = random.array(channels)
    expected = outside("PRelu", [channels_first(images)], [slopes.reshape(-1, 1, 1)])
    values = run(one_layer(PRelu(slopes=slopes), size, channels), images)
    assert_close(values, channels_last(expected), 0)


@pytest.mark.parametrize("seed", CASES)
def test_softmax(seed):
    random = Random(seed)
    size, channels = random.int(1, 12), random.int(2, 60)
    images = 20 * random.array(random.int(1, 3), size, size, channels)
    expected = outside("Softmax", [channels_first(images)], axis=1)
    values = run(one_layer(Softmax(), size, channels), images)
    assert_close(values, channels_last(expected), 1e-5)


@pytest.mark.parametrize("seed", CASES)
def test_concatenation(seed):
    random = Random(seed)
    size, channels = random.int(1, 12), random.int(1, 12)
    images = random.array(random.int(1, 3), size, size, channels)
    model = one_layer(Pool(size=1, stride=1), size, channels)
    kernels = random.array(random.int(1, 9), 1, 1, channels)
    branch = model.append(Conv(kernels=kernels), "branch", "data")
    model.append(Concat(), "both", [branch, "output", branch])
    convolved = run(one_layer(Conv(kernels=kernels), size, channels), images)
    arrays = [channels_first(a) for a in (convolved, images, convolved)]
    expected = outside("Concat", arrays, axis=1)
    assert_close(run(model, images), channels_last(expected), 0)
