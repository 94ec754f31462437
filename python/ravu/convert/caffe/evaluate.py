"""Runs a Caffe network in numpy, from its own description: what conversions are compared with.

Written from the formulas of the layers, and shares nothing with the mapping. Tensors are (batch,
channels, height, width), single precision; sums are BLAS products.
"""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import numpy as np
from numpy.lib.stride_tricks import sliding_window_view

from ..graph import SourceError
from .detection import detection_output, prior_box
from .reading import CaffeLayer, CaffeModel


class CaffeSource:
    """Runs a network and keeps the tensors that are asked for."""

    def __init__(self, model: CaffeModel, tensors: list[str]) -> None:
        self._model = model
        self.tensors = tensors

    def run(self, pixels: np.ndarray) -> dict[str, np.ndarray]:
        """All tensors for an input of (1, channels, height, width)."""
        values = {self._model.input: np.asarray(pixels, np.float32)}
        for layer in self._model.layers:
            inputs = [values[name] for name in layer.bottoms]
            try:
                with np.errstate(all="ignore"):
                    outputs = _EVALUATORS[layer.kind](layer, *inputs)
            except (ValueError, TypeError, IndexError, ArithmeticError) as error:
                raise SourceError(f"layer {layer.name!r} ({layer.kind}): {error}") from error
            if isinstance(outputs, np.ndarray):
                outputs = [outputs] * len(layer.tops)
            values.update((name, np.float32(v)) for name, v in zip(layer.tops, outputs))
        return {name: values[name] for name in self.tensors}


def _two(parameter: Any, both: str, single: str, otherwise: int) -> tuple[int, int]:
    if parameter.HasField(single + "_h") or parameter.HasField(single + "_w"):
        return getattr(parameter, single + "_h"), getattr(parameter, single + "_w")
    value = getattr(parameter, both)
    if isinstance(value, int):
        value = [value] if parameter.HasField(both) else []
    return (value[0], value[-1]) if len(value) else (otherwise, otherwise)


def _convolve(layer: CaffeLayer, x: np.ndarray) -> np.ndarray:
    p = layer.message.convolution_param
    group = x.shape[1] if layer.kind == "DepthwiseConvolution" else p.group
    kh, kw = _two(p, "kernel_size", "kernel", 0)
    sh, sw = _two(p, "stride", "stride", 1)
    ph, pw = _two(p, "pad", "pad", 0)
    gap = list(p.dilation) or [1]
    x = np.pad(x, ((0, 0), (0, 0), (ph, ph), (pw, pw)))
    extent = ((kh - 1) * gap[0] + 1, (kw - 1) * gap[-1] + 1)
    patches = sliding_window_view(x[0], extent, axis=(1, 2))[:, ::sh, ::sw, :: gap[0], :: gap[-1]]
    channels, rows, columns = patches.shape[:3]
    per_group = channels // group
    weights = layer.blobs[0].reshape(group, -1, per_group * kh * kw)
    results = []
    for g in range(group):
        part = patches[g * per_group : (g + 1) * per_group].transpose(0, 3, 4, 1, 2)
        results.append(weights[g] @ part.reshape(per_group * kh * kw, rows * columns))
    y = np.concatenate(results).reshape(1, -1, rows, columns)
    return y + layer.blobs[1].reshape(1, -1, 1, 1) if p.bias_term else y


def _pool(layer: CaffeLayer, x: np.ndarray) -> np.ndarray:
    p = layer.message.pooling_param
    height, width = x.shape[2:]
    if p.global_pooling:
        kernel, stride, pad = (height, width), (1, 1), (0, 0)
    else:
        kernel = _two(p, "kernel_size", "kernel", 0)
        stride, pad = _two(p, "stride", "stride", 1), _two(p, "pad", "pad", 0)
    rounding = np.ceil if p.round_mode == 0 else np.floor
    counts = []
    for axis, size in enumerate((height, width)):
        count = int(rounding((size + 2 * pad[axis] - kernel[axis]) / stride[axis])) + 1
        if p.round_mode == 0 and pad[axis] > 0:
            count -= (count - 1) * stride[axis] >= size + pad[axis]
        counts.append(count)
    y = np.empty((*x.shape[:2], *counts), np.float32)
    for i in range(counts[0]):
        top = i * stride[0] - pad[0]
        bottom = min(top + kernel[0], height + pad[0])
        for j in range(counts[1]):
            left = j * stride[1] - pad[1]
            right = min(left + kernel[1], width + pad[1])
            window = x[:, :, max(top, 0) : bottom, max(left, 0) : right]
            window = window[:, :, : height - max(top, 0), : width - max(left, 0)]
            if p.pool == 0:
                y[:, :, i, j] = window.max(axis=(2, 3))
            else:
                area = (bottom - top) * (right - left)
                y[:, :, i, j] = window.sum(axis=(2, 3), dtype=np.float64) / area
    return y


def _dense(layer: CaffeLayer, x: np.ndarray) -> np.ndarray:
    p = layer.message.inner_product_param
    flat = x.reshape(len(x), -1)
    matrix = (
        layer.blobs[0].reshape(flat.shape[1], -1)
        if p.transpose
        else (layer.blobs[0].reshape(-1, flat.shape[1]).T)
    )
    y = flat @ matrix
    return y + layer.blobs[1].ravel() if p.bias_term else y


def _lrn(layer: CaffeLayer, x: np.ndarray) -> np.ndarray:
    p = layer.message.lrn_param
    half = p.local_size // 2
    squares = np.pad(x.astype(np.float64) ** 2, ((0, 0), (half, half), (0, 0), (0, 0)))
    sums = sliding_window_view(squares, p.local_size, axis=1).sum(axis=-1)
    return x / (p.k + p.alpha / p.local_size * sums) ** p.beta


def _column(values: np.ndarray, x: np.ndarray) -> np.ndarray:
    return values.reshape(1, -1, *[1] * (x.ndim - 2)) if values.size > 1 else values.ravel()


def _batch_norm(layer: CaffeLayer, x: np.ndarray) -> np.ndarray:
    factor = layer.blobs[2].ravel()[0]
    mean, variance = (_column(b / factor if factor else 0 * b, x) for b in layer.blobs[:2])
    return (x - mean) / np.sqrt(variance + layer.message.batch_norm_param.eps)


def _scale(layer: CaffeLayer, x: np.ndarray, *other: np.ndarray) -> np.ndarray:
    y = x * (other[0] if other else _column(layer.blobs[0], x))
    return y + _column(layer.blobs[1], x) if layer.message.scale_param.bias_term else y


def _prelu(layer: CaffeLayer, x: np.ndarray) -> np.ndarray:
    return np.where(x > 0, x, x * _column(layer.blobs[0], x))


def _eltwise(layer: CaffeLayer, *inputs: np.ndarray) -> np.ndarray:
    p = layer.message.eltwise_param
    if p.operation == 0:
        return np.prod(inputs, axis=0)
    if p.operation == 2:
        return np.max(inputs, axis=0)
    factors = list(p.coeff) or [1.0] * len(inputs)
    return np.sum([x * np.float32(f) for x, f in zip(inputs, factors)], axis=0)


def _power(layer: CaffeLayer, x: np.ndarray) -> np.ndarray:
    p = layer.message.power_param
    return (p.shift + p.scale * x) ** p.power


def _concat(layer: CaffeLayer, *inputs: np.ndarray) -> np.ndarray:
    p = layer.message.concat_param
    return np.concatenate(inputs, axis=p.concat_dim if p.HasField("concat_dim") else p.axis)


def _slice(layer: CaffeLayer, x: np.ndarray) -> list[np.ndarray]:
    p = layer.message.slice_param
    axis = p.slice_dim if p.HasField("slice_dim") else p.axis
    return np.split(x, list(p.slice_point) or len(layer.tops), axis=axis)


def _softmax(layer: CaffeLayer, x: np.ndarray) -> np.ndarray:
    axis = layer.message.softmax_param.axis
    e = np.exp(x - x.max(axis=axis, keepdims=True))
    return e / e.sum(axis=axis, keepdims=True)


def _flatten(layer: CaffeLayer, x: np.ndarray) -> np.ndarray:
    p = layer.message.flatten_param
    first, last = p.axis % x.ndim, p.end_axis % x.ndim
    return x.reshape(*x.shape[:first], -1, *x.shape[last + 1 :])


def _reshape(layer: CaffeLayer, x: np.ndarray) -> np.ndarray:
    wanted = layer.message.reshape_param.shape.dim
    return x.reshape([x.shape[i] if n == 0 else n for i, n in enumerate(wanted)])


def _permute(layer: CaffeLayer, x: np.ndarray) -> np.ndarray:
    given = list(layer.message.permute_param.order)
    return x.transpose(given + [i for i in range(x.ndim) if i not in given])


def _normalize(layer: CaffeLayer, x: np.ndarray) -> np.ndarray:
    length = np.sqrt((x.astype(np.float64) ** 2).sum(axis=1, keepdims=True))
    return x / (length + layer.message.norm_param.eps) * _column(layer.blobs[0], x)


def _relu(layer: CaffeLayer, x: np.ndarray) -> np.ndarray:
    return np.where(x > 0, x, x * np.float32(layer.message.relu_param.negative_slope))


_EVALUATORS: dict[str, Callable[..., np.ndarray | list[np.ndarray]]] = {
    "AbsVal": lambda layer, x: np.abs(x),
    "BatchNorm": _batch_norm,
    "Bias": lambda layer, x, *other: x + (other[0] if other else _column(layer.blobs[0], x)),
    "Concat": _concat,
    "Convolution": _convolve,
    "DepthwiseConvolution": _convolve,
    "DetectionOutput": detection_output,
    "Dropout": lambda layer, x: x,
    "Eltwise": _eltwise,
    "Flatten": _flatten,
    "InnerProduct": _dense,
    "LRN": _lrn,
    "Normalize": _normalize,
    "PReLU": _prelu,
    "Permute": _permute,
    "Pooling": _pool,
    "Power": _power,
    "PriorBox": prior_box,
    "ReLU": _relu,
    "ReLU6": lambda layer, x: np.clip(x, 0, 6),
    "Reshape": _reshape,
    "Scale": _scale,
    "Slice": _slice,
    "Softmax": _softmax,
    "Split": lambda layer, x: x,
}
