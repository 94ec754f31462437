"""Windows: how convolutions and pooling of any padding, shape and dilation fit the engine's.

The engine's convolutions have square kernels, one stride and one padding, and round sizes down. Its
pooling has square windows and one stride, rounds sizes up, and shortens windows where it is padded.
"""

from __future__ import annotations

import math
from dataclasses import dataclass

from .graph import Refused

Pads = tuple[int, int, int, int]
"""Top, left, bottom, right."""

LARGEST = 1 << 14
"""Sizes, kernels and pads beyond this are refused: no image has them, and windows are counted."""


@dataclass(frozen=True)
class Placement:
    """Where a kernel of any shape stands inside a square one.

    size:      rows and columns of the square kernel
    padding:   on all four sides
    top, left: the first tap inside the square
    dilation:  distance of two taps in rows, in columns
    """

    size: int
    padding: int
    top: int
    left: int
    stride: int
    out_height: int
    out_width: int
    dilation: tuple[int, int] = (1, 1)


def resolve_pads(
    auto_pad: str,
    pads: list[int] | None,
    sizes: tuple[int, int],
    kernel: tuple[int, int],
    strides: tuple[int, int],
) -> Pads:
    """Explicit pads of an operator. `kernel` is the extent with dilation."""
    if auto_pad in ("SAME_UPPER", "SAME_LOWER"):
        begin, end = [], []
        for size, k, stride in zip(sizes, kernel, strides):
            total = max(0, (-(-size // stride) - 1) * stride + k - size)
            less, more = total // 2, total - total // 2
            begin.append(less if auto_pad == "SAME_UPPER" else more)
            end.append(more if auto_pad == "SAME_UPPER" else less)
        return (*begin, *end)  # type: ignore[return-value]
    if auto_pad == "VALID" or pads is None:
        return (0, 0, 0, 0)
    if auto_pad not in ("NOTSET", ""):
        raise Refused(f"{auto_pad!r} is unknown", attribute="auto_pad")
    if len(pads) != 4:
        raise Refused(f"{len(pads)} values where 4 are needed", attribute="pads")
    return tuple(int(p) for p in pads)  # type: ignore[return-value]


def one_stride(strides: tuple[int, int]) -> int:
    if strides[0] != strides[1] or strides[0] < 1:
        raise Refused(
            f"{list(strides)}: rows and columns have one stride here",
            attribute="strides",
            advice="use the same stride for both axes",
        )
    return strides[0]


def place_kernel(
    sizes: tuple[int, int],
    kernel: tuple[int, int],
    strides: tuple[int, int],
    pads: Pads,
    dilation: tuple[int, int] = (1, 1),
) -> Placement:
    """The smallest square kernel and padding that compute the same outputs.

    sizes:  rows and columns of the input
    kernel: rows and columns of taps
    """
    stride = one_stride(strides)
    extent = tuple((k - 1) * d + 1 for k, d in zip(kernel, dilation))
    out = tuple((n + pads[i] + pads[i + 2] - extent[i]) // stride + 1 for i, n in enumerate(sizes))
    if min(out) < 1 or min(extent) < 1 or min(pads) < 0 or max(*extent, *pads, stride) > LARGEST:
        raise Refused(
            f"a window of {extent} with pads {pads} does not fit {sizes}", attribute="kernel_shape"
        )
    for padding in range(max(pads[0], pads[1]), max(extent) + max(pads) + stride + 1):
        # Per axis: so many outputs, and the kernel's extent inside the square.
        least, most = [1], []
        for i, n in enumerate(sizes):
            padded = n + 2 * padding
            least += [padded - stride * out[i] + 1, padding - pads[i] + extent[i]]
            most.append(padded - stride * (out[i] - 1))
        if max(least) <= min(most):
            return Placement(
                max(least),
                padding,
                padding - pads[0],
                padding - pads[1],
                stride,
                out[0],
                out[1],
                dilation,
            )
    raise Refused(
        f"{list(pads)}: rows and columns change by different amounts",
        attribute="pads",
        advice="pad rows and columns alike",
    )


def aligner(change: Pads) -> Placement:
    """The identity kernel that adds rows and columns of zeros, or cuts where `change` is negative.

    With a padding p, a kernel of k and its tap at t, output row i is input row i + t - p.
    """
    top, left, bottom, right = change
    if top + bottom != left + right:
        raise Refused(
            f"rows change by {top + bottom}, columns by {left + right}",
            attribute="pads",
            advice="pad rows and columns alike",
        )
    padding = max(0, *change)
    size = 2 * padding - top - bottom + 1
    return Placement(size, padding, padding - top, padding - left, 1, 0, 0)


@dataclass(frozen=True)
class Windows:
    """The windows of one axis: where each starts, how many real elements it holds, and how many it
    is said to hold when an average counts padding."""

    spans: tuple[tuple[int, int], ...]
    counted: tuple[int, ...]


def source_windows(
    size: int, kernel: int, stride: int, begin: int, end: int, ceil_mode: bool
) -> Windows:
    """The windows of the source's pooling along one axis."""
    room = size + begin + end - kernel
    most = max(size, kernel, stride, begin, end)
    if room < 0 or min(kernel, stride) < 1 or min(begin, end) < 0 or most > LARGEST:
        raise Refused(f"a window of {kernel} does not fit {size}", attribute="kernel_shape")
    count = (math.ceil(room / stride) if ceil_mode else room // stride) + 1
    if ceil_mode and (count - 1) * stride >= size + begin:
        count -= 1  # the last window must start inside the input or the padding before it
    spans, counted = [], []
    for i in range(count):
        start, stop = i * stride - begin, i * stride - begin + kernel
        spans.append((max(start, 0), min(stop, size) - max(start, 0)))
        counted.append(min(stop, size + end) - start)
    return Windows(tuple(spans), tuple(counted))


def engine_windows(size: int, kernel: int, stride: int, pad: int) -> tuple[tuple[int, int], ...]:
    """The windows of the engine's pooling along one axis: start and length of each."""
    count = math.ceil((2 * pad - kernel + size) / stride) + 1
    spans = []
    for i in range(count):
        start = stride * (i if i < pad else i - pad)
        cut = pad - i if i < pad else max(0, pad - (count - i))
        spans.append((start, max(0, min(size - start, kernel) - cut)))
    return tuple(spans)


def engine_padding(size: int, kernel: int, stride: int, wanted: Windows) -> int | None:
    """The padding with which the engine's windows are the wanted ones, or None."""
    for pad in range(kernel + 1):
        if engine_windows(size, kernel, stride, pad) == wanted.spans:
            return pad
    return None
