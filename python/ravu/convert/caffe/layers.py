"""From Caffe's layers to the operators of the source graph, one function per layer type."""

from __future__ import annotations

import math
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

import numpy as np

from ..graph import Graph, Node, Refused

Shape = tuple[int, ...]


@dataclass
class Reader:
    """One layer on its way into the graph."""

    graph: Graph
    name: str
    kind: str
    bottoms: list[str]
    tops: list[str]
    message: Any
    blobs: list[np.ndarray]

    @property
    def shape(self) -> Shape:
        """The first input's."""
        return self.graph.shapes[self.bottoms[0]]

    def node(
        self, op: str, inputs: list[str], outputs: list[str] | None = None, **attributes: Any
    ) -> None:
        outputs = self.tops if outputs is None else outputs
        self.graph.nodes.append(Node(op, self.name, list(inputs), list(outputs), attributes))

    def constant(self, what: str, values: np.ndarray) -> str:
        name = f"{self.name}:{what}"
        while name in self.graph.constants:
            name += "'"
        self.graph.constants[name] = values
        return name

    def blob(self, index: int) -> np.ndarray:
        if index >= len(self.blobs):
            raise Refused(f"has {len(self.blobs)} blobs of weights, not {index + 1}")
        return self.blobs[index]

    def step(self, op: str, inputs: list[str], shape: Shape, **attributes: Any) -> str:
        """A node in the middle of a layer: its output's name."""
        name = f"{self.tops[0]}:{len(self.graph.nodes)}"
        self.node(op, inputs, [name], **attributes)
        self.graph.shapes[name] = shape
        self.graph.inner.add(name)
        return name

    def gives(self, *shapes: Shape) -> None:
        self.graph.shapes.update(zip(self.tops, shapes))

    def keep_shape(self) -> None:
        self.gives(*[self.shape] * len(self.tops))


def _pair(parameter: Any, both: str, axis: str, default: int) -> tuple[int, int]:
    """Rows and columns of a size given for both axes or for each."""
    names = [f"{axis}_h", f"{axis}_w"]
    if any(parameter.HasField(name) for name in names):
        return tuple(getattr(parameter, name) for name in names)  # type: ignore[return-value]
    given = getattr(parameter, both)
    if isinstance(given, int):
        return (given, given) if parameter.HasField(both) else (default, default)
    values = list(given) or [default]
    if len(values) > 2:
        raise Refused(f"{both} has {len(values)} values")
    return values[0], values[-1]


def _convolution(reader: Reader) -> None:
    p = reader.message.convolution_param
    kernel = _pair(p, "kernel_size", "kernel", 0)
    stride, pad = _pair(p, "stride", "stride", 1), _pair(p, "pad", "pad", 0)
    gaps = list(p.dilation) or [1]
    dilation = (gaps[0], gaps[-1])
    channels, group = reader.shape[1], p.group
    if reader.kind == "DepthwiseConvolution":
        group = channels
    weights = reader.blob(0).reshape(p.num_output, channels // group, *kernel)
    inputs = [reader.bottoms[0], reader.constant("weights", weights)]
    if p.bias_term:
        inputs.append(reader.constant("bias", reader.blob(1).reshape(p.num_output)))
    reader.node(
        "Conv",
        inputs,
        kernel_shape=kernel,
        strides=stride,
        dilations=dilation,
        pads=[*pad, *pad],
        group=group,
    )
    size = [
        (n + 2 * pad[i] - (kernel[i] - 1) * dilation[i] - 1) // stride[i] + 1
        for i, n in enumerate(reader.shape[2:])
    ]
    reader.gives((1, p.num_output, *size))


def _pooling(reader: Reader) -> None:
    p = reader.message.pooling_param
    if p.pool == 2:
        raise Refused("stochastic pooling cannot be expressed")
    if p.global_pooling:
        reader.node("GlobalMaxPool" if p.pool == 0 else "GlobalAveragePool", reader.bottoms)
        return reader.gives((*reader.shape[:2], 1, 1))
    kernel, stride = _pair(p, "kernel_size", "kernel", 0), _pair(p, "stride", "stride", 1)
    pad = _pair(p, "pad", "pad", 0)
    up = p.round_mode == 0
    op, options = ("MaxPool", {}) if p.pool == 0 else ("AveragePool", {"count_include_pad": 1})
    reader.node(
        op,
        reader.bottoms,
        reader.tops[:1],
        kernel_shape=kernel,
        strides=stride,
        pads=[*pad, *pad],
        ceil_mode=int(up),
        **options,
    )
    size = []
    for i, n in enumerate(reader.shape[2:]):
        room = n + 2 * pad[i] - kernel[i]
        count = (-(-room // stride[i]) if up else room // stride[i]) + 1
        if up and pad[i] and (count - 1) * stride[i] >= n + pad[i]:
            count -= 1
        size.append(count)
    reader.gives((*reader.shape[:2], *size))


def _inner_product(reader: Reader) -> None:
    p = reader.message.inner_product_param
    if p.axis != 1:
        raise Refused("multiplies other axes than channels, rows and columns")
    features = math.prod(reader.shape[1:])
    shape = (features, p.num_output) if p.transpose else (p.num_output, features)
    weights = reader.blob(0).reshape(shape)
    flat = reader.bottoms[0]
    if len(reader.shape) != 2:
        flat = reader.step("Flatten", reader.bottoms, (1, features), axis=1)
    inputs = [flat, reader.constant("weights", weights)]
    if p.bias_term:
        inputs.append(reader.constant("bias", reader.blob(1).reshape(p.num_output)))
    reader.node("Gemm", inputs, transB=int(not p.transpose))
    reader.gives((1, p.num_output))


def _relu(reader: Reader) -> None:
    slope = reader.message.relu_param.negative_slope
    if slope:
        reader.node("LeakyRelu", reader.bottoms, alpha=slope)
    else:
        reader.node("Relu", reader.bottoms)
    reader.keep_shape()


def _relu6(reader: Reader) -> None:
    limits = [reader.constant("low", np.float32(0)), reader.constant("high", np.float32(6))]
    reader.node("Clip", [*reader.bottoms, *limits])
    reader.keep_shape()


def _prelu(reader: Reader) -> None:
    slopes = reader.blob(0).ravel()
    if slopes.size > 1:
        slopes = slopes.reshape(-1, *[1] * (len(reader.shape) - 2))
    reader.node("PRelu", [*reader.bottoms, reader.constant("slopes", slopes)])
    reader.keep_shape()


def _lrn(reader: Reader) -> None:
    p = reader.message.lrn_param
    if p.norm_region != 0:
        raise Refused("normalises within channels, which cannot be expressed")
    reader.node("LRN", reader.bottoms, size=p.local_size, alpha=p.alpha, beta=p.beta, bias=p.k)
    reader.keep_shape()


def _batch_norm(reader: Reader) -> None:
    factor = float(reader.blob(2).ravel()[0])
    scale = 0.0 if factor == 0 else 1 / factor
    mean, variance = (np.float32(reader.blob(i).ravel() * scale) for i in range(2))
    ones = np.ones_like(mean)
    constants = [("scale", ones), ("shift", 0 * ones), ("mean", mean), ("variance", variance)]
    inputs = [reader.constant(what, values) for what, values in constants]
    epsilon = reader.message.batch_norm_param.eps
    reader.node("BatchNormalization", [*reader.bottoms, *inputs], epsilon=epsilon)
    reader.keep_shape()


def _per_channel(reader: Reader, values: np.ndarray, axis: int) -> np.ndarray:
    if axis % len(reader.shape) != 1 or values.size != reader.shape[1]:
        raise Refused("works on other axes than the channels")
    return values.reshape(1, -1, *[1] * (len(reader.shape) - 2))


def _scale(reader: Reader) -> None:
    p = reader.message.scale_param
    if len(reader.bottoms) != 1:
        return _binary(reader, "Mul")
    factors = reader.constant("factors", _per_channel(reader, reader.blob(0), p.axis))
    if p.bias_term:
        scaled = reader.step("Mul", [*reader.bottoms, factors], reader.shape)
        terms = reader.constant("terms", _per_channel(reader, reader.blob(1), p.axis))
        reader.node("Add", [scaled, terms])
    else:
        reader.node("Mul", [*reader.bottoms, factors])
    reader.keep_shape()


def _bias(reader: Reader) -> None:
    if len(reader.bottoms) != 1:
        return _binary(reader, "Add")
    terms = _per_channel(reader, reader.blob(0), reader.message.bias_param.axis)
    reader.node("Add", [*reader.bottoms, reader.constant("terms", terms)])
    reader.keep_shape()


def _binary(reader: Reader, op: str) -> None:
    reader.node(op, reader.bottoms)
    reader.keep_shape()


def _eltwise(reader: Reader) -> None:
    p = reader.message.eltwise_param
    if p.operation == 1:
        coefficients = list(p.coeff) or [1.0] * len(reader.bottoms)
        terms = []
        for name, factor in zip(reader.bottoms, coefficients):
            if factor != 1:
                by = reader.constant("factor", np.float32(factor))
                name = reader.step("Mul", [name, by], reader.shape)
            terms.append(name)
        reader.node("Sum", terms)
    else:
        reader.node("Mul" if p.operation == 0 else "Max", reader.bottoms)
    reader.keep_shape()


def _power(reader: Reader) -> None:
    p = reader.message.power_param
    name = reader.bottoms[0]
    for op, value, neutral in (("Mul", p.scale, 1), ("Add", p.shift, 0), ("Pow", p.power, 1)):
        if value != neutral:
            by = reader.constant(op.lower(), np.float32(value))
            name = reader.step(op, [name, by], reader.shape)
    reader.node("Identity", [name])
    reader.keep_shape()


def _concat(reader: Reader) -> None:
    p = reader.message.concat_param
    axis = p.concat_dim if p.HasField("concat_dim") else p.axis
    shapes = [reader.graph.shapes[name] for name in reader.bottoms]
    axis %= len(shapes[0])
    shape = list(shapes[0])
    shape[axis] = sum(s[axis] for s in shapes)
    reader.node("Concat", reader.bottoms, axis=axis)
    reader.gives(tuple(shape))


def _slice(reader: Reader) -> None:
    p = reader.message.slice_param
    axis = (p.slice_dim if p.HasField("slice_dim") else p.axis) % len(reader.shape)
    total = reader.shape[axis]
    cuts = list(p.slice_point)
    if not cuts:
        cuts = [total // len(reader.tops) * i for i in range(1, len(reader.tops))]
    edges = [0, *cuts, total]
    sizes = [b - a for a, b in zip(edges, edges[1:])]
    if len(sizes) != len(reader.tops) or min(sizes) < 1:
        raise Refused(f"cuts {total} at {cuts}")
    reader.node("Split", reader.bottoms, axis=axis, split=sizes)
    shape = reader.shape
    reader.gives(*[(*shape[:axis], size, *shape[axis + 1 :]) for size in sizes])


def _split(reader: Reader) -> None:
    for top in reader.tops:
        reader.node("Identity", reader.bottoms, [top])
    reader.keep_shape()


def _flatten(reader: Reader) -> None:
    p = reader.message.flatten_param
    rank = len(reader.shape)
    first, last = p.axis % rank, p.end_axis % rank
    joined = math.prod(reader.shape[first : last + 1])
    reader.node("Flatten", reader.bottoms)
    reader.gives((*reader.shape[:first], joined, *reader.shape[last + 1 :]))


def _reshape(reader: Reader) -> None:
    p = reader.message.reshape_param
    if p.axis != 0 or p.num_axes != -1:
        raise Refused("reshapes some of the axes only")
    shape = [reader.shape[i] if n == 0 else n for i, n in enumerate(p.shape.dim)]
    known = math.prod(n for n in shape if n != -1)
    shape = [math.prod(reader.shape) // known if n == -1 else n for n in shape]
    if math.prod(shape) != math.prod(reader.shape):
        raise Refused(f"makes {tuple(shape)} of {reader.shape}")
    reader.node("Reshape", reader.bottoms)
    reader.gives(tuple(shape))


def _permute(reader: Reader) -> None:
    order = list(reader.message.permute_param.order)
    order += [i for i in range(len(reader.shape)) if i not in order]
    reader.node("Transpose", reader.bottoms, perm=order)
    reader.gives(tuple(reader.shape[i] for i in order))


def _softmax(reader: Reader) -> None:
    reader.node("Softmax", reader.bottoms, axis=reader.message.softmax_param.axis)
    reader.keep_shape()


def _normalize(reader: Reader) -> None:
    p = reader.message.norm_param
    if p.across_spatial:
        raise Refused("normalises whole images, which cannot be expressed")
    unit = reader.step("LpNormalization", reader.bottoms, reader.shape, axis=1, p=2)
    scale = reader.blob(0)
    if scale.size > 1:
        scale = _per_channel(reader, scale, 1)
    reader.node("Mul", [unit, reader.constant("scale", scale)])
    reader.keep_shape()


def _prior_box(reader: Reader) -> None:
    p = reader.message.prior_box_param
    ratios: list[float] = []
    for ratio in p.aspect_ratio:
        for r in [ratio, 1 / ratio] if p.flip else [ratio]:
            if all(abs(r - other) > 1e-6 for other in [1.0, *ratios]):
                ratios.append(r)
    image = reader.graph.shapes[reader.bottoms[1]][2:]
    if p.img_size or p.img_h or p.img_w:
        image = (p.img_size or p.img_h, p.img_size or p.img_w)
    steps = (p.step or p.step_h, p.step or p.step_w)
    reader.node(
        "PriorBox",
        reader.bottoms,
        min_size=list(p.min_size),
        max_size=list(p.max_size),
        aspect_ratio=ratios,
        clip=p.clip,
        variance=list(p.variance) or [0.1],
        image=image,
        step=steps,
        offset=p.offset,
    )
    boxes = len(p.min_size) * (1 + len(ratios)) + len(p.max_size)
    height, width = reader.shape[2:]
    reader.gives((1, 2, height * width * boxes * 4))


def _detection_output(reader: Reader) -> None:
    p = reader.message.detection_output_param
    nms = p.nms_param
    reader.node(
        "DetectionOutput",
        reader.bottoms,
        num_classes=p.num_classes,
        share_location=p.share_location,
        background=p.background_label_id,
        code_type=p.code_type,
        encoded=p.variance_encoded_in_target,
        top_k=nms.top_k if nms.HasField("top_k") else -1,
        keep_top_k=p.keep_top_k,
        confidence=p.confidence_threshold,
        nms=nms.nms_threshold,
        eta=nms.eta,
    )
    reader.gives((1, 1, max(p.keep_top_k, 1), 7))


def _plain(op: str) -> Callable[[Reader], None]:
    return lambda reader: _binary(reader, op)


LAYERS: dict[str, Callable[[Reader], None]] = {
    "AbsVal": _plain("Abs"),
    "BatchNorm": _batch_norm,
    "Bias": _bias,
    "Concat": _concat,
    "Convolution": _convolution,
    "DepthwiseConvolution": _convolution,
    "DetectionOutput": _detection_output,
    "Dropout": _plain("Identity"),
    "Eltwise": _eltwise,
    "Flatten": _flatten,
    "InnerProduct": _inner_product,
    "LRN": _lrn,
    "Normalize": _normalize,
    "PReLU": _prelu,
    "Permute": _permute,
    "Pooling": _pooling,
    "Power": _power,
    "PriorBox": _prior_box,
    "ReLU": _relu,
    "ReLU6": _relu6,
    "Reshape": _reshape,
    "Scale": _scale,
    "Sigmoid": _plain("Sigmoid"),
    "Slice": _slice,
    "Softmax": _softmax,
    "Split": _split,
    "TanH": _plain("Tanh"),
}
