"""Pooling: the engine's own where its windows are the source's, otherwise aligned or convolved."""

from __future__ import annotations

from dataclasses import dataclass, replace

import numpy as np

from ...model_file import Pool, Scale
from ..builder import require_image
from ..geometry import (
    Placement,
    Windows,
    engine_padding,
    one_stride,
    place_kernel,
    resolve_pads,
    source_windows,
)
from ..graph import Refused
from ..values import Value
from .context import Context


@dataclass(frozen=True)
class _Pooling:
    """One pooling operator's geometry; per axis: rows, then columns."""

    sizes: tuple[int, int]
    kernel: tuple[int, int]
    stride: int
    pads: tuple[int, int, int, int]
    windows: tuple[Windows, Windows]

    @property
    def out(self) -> tuple[int, int]:
        return len(self.windows[0].spans), len(self.windows[1].spans)


def max_pool(context: Context) -> None:
    context.only_first_output()
    value = context.settled()
    pooling = _read(context, value)
    if pooling.kernel[0] != pooling.kernel[1]:
        raise Refused(
            f"{list(pooling.kernel)}: windows are square here",
            attribute="kernel_shape",
            advice="use a square window",
        )
    if _is_identity(pooling):
        return context.bind(value)
    paddings = _engine_paddings(pooling)
    if paddings is None:
        value, paddings = _aligned(context, value, pooling), (0, 0)
    context.bind(_pool(context, value, pooling, "max", paddings))


def average_pool(context: Context) -> None:
    value = context.settled()
    pooling = _read(context, value)
    if _is_identity(pooling):
        return context.bind(value)
    paddings = _engine_paddings(pooling) if pooling.kernel[0] == pooling.kernel[1] else None
    if paddings is not None:
        result = _pool(context, value, pooling, "avg", paddings)
    else:
        result = _averaging_convolution(context, value, pooling)
    counts_padding = bool(context.node.get("count_include_pad", 0))
    context.bind(_corrected(context, result, pooling, counts_padding))


def global_average(context: Context) -> None:
    _global(context, context.settled(), "avg")


def global_max(context: Context) -> None:
    _global(context, context.settled(), "max")


def reduce_mean(context: Context) -> None:
    _reduce(context, "avg")


def reduce_max(context: Context) -> None:
    _reduce(context, "max")


def _reduce(context: Context, mode: str) -> None:
    value = context.settled()
    axes = context.option("axes", 1)
    rank = len(value.shape)
    found = range(rank) if axes is None else sorted(int(a) % rank for a in np.ravel(axes))
    pixels = [2, 3] if value.is_image else [1, 2]
    is_map = value.is_image or (not value.planar and value.shape == value.dims)
    if not is_map or list(found) != pixels:
        raise Refused(f"{axes}: only whole images can be reduced to a pixel", attribute="axes")
    _global(context, value, mode)


def _global(context: Context, value: Value, mode: str) -> None:
    n, h, w, c = value.dims
    if h != w:
        raise Refused(f"pools {h} x {w}: windows are square here", advice="use a square image")
    if h > 1:
        layer = Pool(size=h, stride=1, mode=mode)
        blob = context.builder.add(layer, value, context.output, (n, 1, 1, c))
        value = replace(value, blob=blob, dims=(n, 1, 1, c))
    context.bind(replace(value, planar=True, shape=(n, c, 1, 1)))


def _read(context: Context, value: Value) -> _Pooling:
    node = context.node
    sizes = require_image(value, "pools")[2:]
    kernel = tuple(node.get("kernel_shape", ()))
    if len(kernel) != 2:
        raise Refused(f"pools {len(kernel)} axes", attribute="kernel_shape")
    if any(d != 1 for d in node.get("dilations", (1, 1))):
        raise Refused("windows have no gaps here", attribute="dilations")
    strides = tuple(node.get("strides", (1, 1)))
    stride = one_stride(strides)
    pads = resolve_pads(node.get("auto_pad", "NOTSET"), node.get("pads"), sizes, kernel, strides)
    ceil_mode = bool(node.get("ceil_mode", 0))
    windows = tuple(
        source_windows(sizes[i], kernel[i], stride, pads[i], pads[i + 2], ceil_mode)
        for i in range(2)
    )
    return _Pooling(sizes, kernel, stride, pads, windows)  # type: ignore[arg-type]


def _is_identity(pooling: _Pooling) -> bool:
    return pooling.kernel == (1, 1) and pooling.stride == 1 and not any(pooling.pads)


def _engine_paddings(pooling: _Pooling) -> tuple[int, int] | None:
    rows, columns = (
        engine_padding(pooling.sizes[i], pooling.kernel[i], pooling.stride, pooling.windows[i])
        for i in range(2)
    )
    return None if rows is None or columns is None else (rows, columns)


def _aligned(context: Context, value: Value, pooling: _Pooling) -> Value:
    """The input with the source's padding around it and no more rows than its windows reach."""
    if any(pooling.pads) and not value.at_least_zero:
        raise Refused(
            f"{list(pooling.pads)} around values that may be negative",
            attribute="pads",
            advice="pool without padding, or behind a rectifier",
        )
    top, left = pooling.pads[:2]
    reach = [(out - 1) * pooling.stride + k for out, k in zip(pooling.out, pooling.kernel)]
    bottom = reach[0] - top - pooling.sizes[0]
    right = reach[1] - left - pooling.sizes[1]
    return context.builder.aligned(value, (top, left, bottom, right))


def _pool(
    context: Context, value: Value, pooling: _Pooling, mode: str, paddings: tuple[int, int]
) -> Value:
    layer = Pool(
        size=pooling.kernel[0],
        stride=pooling.stride,
        padding_h=paddings[0],
        padding_w=paddings[1],
        mode=mode,
    )
    n, c = value.dims[0], value.dims[3]
    dims = (n, *pooling.out, c)
    blob = context.builder.add(layer, value, context.output, dims)
    return Value(blob, dims, (n, c, *pooling.out), at_least_zero=value.at_least_zero)


def _averaging_convolution(context: Context, value: Value, pooling: _Pooling) -> Value:
    """A convolution of each channel by itself with equal weights."""
    # In ceil mode the last window may reach further than the padding.
    reach = [(out - 1) * pooling.stride + k for out, k in zip(pooling.out, pooling.kernel)]
    top, left = pooling.pads[:2]
    pads = (
        top,
        left,
        max(pooling.pads[2], reach[0] - top - pooling.sizes[0]),
        max(pooling.pads[3], reach[1] - left - pooling.sizes[1]),
    )
    strides = (pooling.stride, pooling.stride)
    placement: Placement = place_kernel(pooling.sizes, pooling.kernel, strides, pads)
    channels = value.dims[3]
    kernels = np.full((channels, *pooling.kernel, 1), 1 / np.prod(pooling.kernel))
    result = context.builder.convolve(value, kernels, None, placement, channels, context.output)
    return replace(result, at_least_zero=value.at_least_zero)


def _corrected(context: Context, value: Value, pooling: _Pooling, counts_padding: bool) -> Value:
    """Undo the division by the full window where the source divides by fewer elements."""
    if counts_padding:
        rows, columns = (np.array(w.counted, np.float64) for w in pooling.windows)
    else:
        rows, columns = (
            np.array([length for _, length in w.spans], np.float64) for w in pooling.windows
        )
    factors = np.prod(pooling.kernel) / np.outer(rows, columns)
    if (factors == 1).all():
        return value
    _, h, w, c = value.dims
    scales = np.repeat(factors.reshape(h, w, 1), c, axis=2).astype(np.float32).ravel()
    blob = context.builder.add(Scale(scales=scales), value, context.output, value.dims)
    return replace(value, blob=blob)
