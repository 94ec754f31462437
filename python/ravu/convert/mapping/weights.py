"""Convolution, fully connected layers, batch normalisation."""

from __future__ import annotations

from dataclasses import replace

import numpy as np

from ...model_file import FullyConnected
from ..builder import require_image
from ..geometry import place_kernel, resolve_pads
from ..graph import Refused
from ..values import Value
from .context import Context


def conv(context: Context) -> None:
    node, builder = context.node, context.builder
    weights = context.constant(1, "W").astype(np.float64)
    bias = context.optional_constant(2, "B")
    if weights.ndim != 4:
        raise Refused(
            f"convolves {weights.ndim - 2} axes",
            attribute="W",
            advice="only two-dimensional convolution can be expressed",
        )
    value = context.value()
    channels, height, width = require_image(value, "convolves")[1:]
    groups = int(node.get("group", 1))
    if groups < 1 or weights.shape[1] * groups != channels or len(weights) % groups:
        raise Refused(f"{groups} groups for {channels} channels", attribute="group")
    value, sizes, border = _without_border(value, (height, width))
    kernel = weights.shape[2:]
    dilation = tuple(node.get("dilations", (1, 1)))
    strides = tuple(node.get("strides", (1, 1)))
    extent = tuple((k - 1) * d + 1 for k, d in zip(kernel, dilation))
    pads = resolve_pads(
        node.get("auto_pad", "NOTSET"), node.get("pads"), (height, width), extent, strides
    )
    pads = tuple(p + b for p, b in zip(pads, border))
    placement = place_kernel(sizes, kernel, strides, pads, dilation)
    kernels = weights.transpose(0, 2, 3, 1)
    bias = None if bias is None else bias.astype(np.float64)
    if groups == 1:
        value, kernels, bias = _absorbed(context, value, kernels, bias, placement.padding)
    value = builder.settled(value)
    result = builder.convolve(value, kernels, bias, placement, groups, context.output)
    context.bind(result)


def _without_border(
    value: Value, sizes: tuple[int, int]
) -> tuple[Value, tuple[int, int], tuple[int, int, int, int]]:
    """The value, its size and its border, which the convolution's padding can take over unless
    something has to happen to the values before."""
    if value.pad is None or value.affine is not None:
        return value, sizes, (0, 0, 0, 0)
    top, left, bottom, right = value.pad
    inner = (sizes[0] - top - bottom, sizes[1] - left - right)
    return replace(value, pad=None), inner, value.pad


def _absorbed(
    context: Context,
    value: Value,
    kernels: np.ndarray,
    bias: np.ndarray | None,
    padding: int,
) -> tuple[Value, np.ndarray, np.ndarray | None]:
    """What is pending in the input, multiplied into the kernels where that is exact and pays."""
    if value.affine is not None and padding == 0 and value.pad is None:
        scale, shift = value.affine
        moved = (kernels * shift).sum(axis=(1, 2, 3))
        bias = moved if bias is None else bias + moved
        kernels = kernels * scale
        value = replace(value, affine=None)
    if value.select is None or value.affine is not None:
        return value, kernels, bias
    taps, chosen, stored = kernels[0, :, :, 0].size, value.select.size, value.dims[3]
    outputs, pixels = len(kernels), value.dims[1] * value.dims[2]
    if taps * stored * outputs > chosen * (stored + taps * outputs) or not pixels:
        return value, kernels, bias
    spread = np.zeros((*kernels.shape[:3], stored))
    np.add.at(spread, (..., value.select.ravel()), kernels)
    return replace(value, select=None), spread, bias


def gemm(context: Context) -> None:
    node = context.node
    if node.get("transA", 0):
        raise Refused("the network's data is transposed", attribute="transA")
    weights = context.constant(1, "B").astype(np.float64) * node.get("alpha", 1.0)
    bias = context.optional_constant(2, "C")
    if bias is not None:
        bias = bias.astype(np.float64) * node.get("beta", 1.0)
    _dense(context, weights.T if node.get("transB", 0) else weights, bias)


def matmul(context: Context) -> None:
    _dense(context, context.constant(1, "B").astype(np.float64), None)


def _dense(context: Context, weights: np.ndarray, bias: np.ndarray | None) -> None:
    value = context.settled()
    n, h, w, c = value.dims
    if weights.ndim != 2 or value.shape != (n, weights.shape[0]) or weights.shape[0] != h * w * c:
        raise Refused(
            f"multiplies {value.shape} by {weights.shape}",
            advice="only (batch, features) times a matrix can be expressed",
        )
    outputs = weights.shape[1]
    if value.planar:
        # The source counts channel after channel, the engine pixel after pixel.
        weights = weights.reshape(c, h, w, outputs).transpose(1, 2, 0, 3).reshape(-1, outputs)
    if bias is not None:
        bias = np.float32(np.broadcast_to(bias.ravel(), (outputs,)))
    layer = FullyConnected(weights=np.float32(weights), bias=bias)
    dims = (n, 1, 1, outputs)
    blob = context.builder.add(layer, value, context.output, dims)
    context.bind(Value(blob, dims, (n, outputs)))


def batch_norm(context: Context) -> None:
    node = context.node
    context.only_first_output()
    if node.get("training_mode", 0):
        raise Refused(
            "normalises by the batch itself",
            attribute="training_mode",
            advice="export the model for inference",
        )
    names = ("scale", "B", "mean", "var")
    gamma, beta, mean, variance = (
        context.constant(i + 1, what).astype(np.float64) for i, what in enumerate(names)
    )
    value = context.settled()
    if not value.planar or value.shape[:2] != (value.dims[0], value.dims[3]):
        raise Refused(f"normalises {value.shape}")
    if any(v.shape != (value.dims[3],) for v in (gamma, beta, mean, variance)):
        raise Refused(f"has parameters of shape {gamma.shape} for {value.dims[3]} channels")
    scale = gamma / np.sqrt(variance + node.get("epsilon", 1e-5))
    context.bind(context.builder.affine(value, scale, beta - mean * scale, context.output))
