"""Operators that move or relabel values. Most of them cost nothing: they change a `Value`, or are
left pending until a convolution absorbs them."""

from __future__ import annotations

from dataclasses import replace

import numpy as np

from ...model_file import Concat
from ..builder import require_image
from ..graph import Refused
from ..values import Value
from .context import Context


def relabel(context: Context) -> None:
    """Flatten, reshape, squeeze, unsqueeze: only the shape changes."""
    value, shape = context.value(), context.shape
    if shape is None:
        raise Refused(
            "has a shape that depends on the input", advice="export the model with fixed sizes"
        )
    if value.affine is not None or value.pad is not None:
        value = context.builder.settled(value)
    split = _split_channels(value, shape)
    if split is not None:
        return context.builder.bind(context.output, split)
    context.bind(context.builder.settled(value))


def _split_channels(value: Value, shape: tuple[int, ...]) -> Value | None:
    """Whether the new shape only splits or joins the channel axis, and the value that does it."""
    if not value.planar:
        return None
    n, h, w, c = value.dims
    if len(shape) < 4 or shape[0] != n or shape[-2:] != (h, w):
        return None
    is_whole = value.select is None
    if is_whole and (len(shape) == 4 or value.shape != (n, c, h, w)):
        return None
    chosen = np.arange(c) if is_whole else value.select
    assert chosen is not None
    if int(np.prod(shape[1:-2])) != chosen.size or value.shape[-2:] != (h, w):
        return None
    return replace(value, select=chosen.reshape(shape[1:-2]), shape=shape)


def transpose(context: Context) -> None:
    value = context.value()
    rank = len(value.shape)
    order = tuple(int(i) for i in context.node.get("perm", range(rank)[::-1]))
    shape = tuple(value.shape[i] for i in order)
    moved = [i for i in order if value.shape[i] > 1]
    if value.select is not None and order[0] == 0 and order[-2:] == (rank - 2, rank - 1):
        chosen = value.select.transpose([i - 1 for i in order[1:-2]])
        return context.builder.bind(context.output, replace(value, select=chosen, shape=shape))
    value = context.builder.settled(value)
    if moved == sorted(moved):
        return context.bind(value.reshaped(shape))
    if value.is_image and order == (0, 2, 3, 1):
        return context.bind(replace(value, planar=False, shape=shape))
    if not value.planar and value.shape == value.dims and order == (0, 3, 1, 2):
        return context.bind(replace(value, planar=True, shape=shape))
    raise Refused(
        f"{list(order)} of {value.shape}",
        attribute="perm",
        advice="only changes between channels first and channels last, and of split "
        "channels, can be expressed",
    )


def concat(context: Context) -> None:
    values = [context.settled(i) for i in range(len(context.node.inputs))]
    rank = len(values[0].shape)
    axis = int(context.node.get("axis", 1)) % rank
    if len(values) == 1:
        return context.bind(values[0])
    images = axis == 1 and all(value.is_image for value in values)
    interleaved = axis == rank - 1 and all(
        not value.planar and value.shape[-1] == value.dims[3] for value in values
    )
    # Flattened tensors of one image stand behind each other as channels of one pixel.
    rows = axis == 1 and rank < 4 and all(not v.planar or v.is_vector for v in values)
    if rows:
        values = [context.builder.flat(value) for value in values]
    if not (images or interleaved or rows) or len({value.dims[:3] for value in values}) != 1:
        raise Refused(f"{axis}: only channels can be joined", attribute="axis")
    n, h, w = values[0].dims[:3]
    dims = (n, h, w, sum(value.dims[3] for value in values))
    blob = context.builder.add(Concat(), values, context.output, dims)
    positive = all(value.at_least_zero for value in values)
    planar = not interleaved
    context.bind(Value(blob, dims, (n, dims[3], h, w) if planar else dims, planar, positive))


def split(context: Context) -> None:
    value = context.value()
    axis = _channel_axis(value, int(context.node.get("axis", 0)))
    channels = value.shape[axis]
    sizes = context.option("split", 1)
    count = len(context.node.outputs)
    if sizes is None:
        step = -(-channels // count)
        sizes = [min(step, channels - i * step) for i in range(count)]
    start = 0
    for name, size in zip(context.node.outputs, np.ravel(sizes)):
        chosen = np.arange(start, start + int(size))
        context.builder.bind(name, _channels(value, axis, chosen))
        start += int(size)


def slice_(context: Context) -> None:
    value = context.value()
    rank = len(value.shape)
    starts = np.ravel(context.option("starts", 1))
    ends = np.ravel(context.option("ends", 2))
    axes = context.option("axes", 3)
    steps = context.option("steps", 4)
    axes = np.arange(len(starts)) if axes is None else np.ravel(axes)
    steps = np.ones(len(starts), int) if steps is None else np.ravel(steps)
    for start, end, axis, step in zip(starts, ends, axes, steps):
        axis = int(axis) % rank
        chosen = np.arange(value.shape[axis])[slice(int(start), int(end), int(step))]
        if chosen.size < value.shape[axis] or step != 1:
            value = _channels(value, _channel_axis(value, axis), chosen)
    context.builder.bind(context.output, value)


def gather(context: Context) -> None:
    value = context.value()
    indices = context.constant(1, "indices")
    axis = _channel_axis(value, int(context.node.get("axis", 0)))
    if indices.ndim != 1:
        raise Refused(
            f"of shape {indices.shape}", attribute="indices", advice="use a list of channels"
        )
    context.builder.bind(context.output, _channels(value, axis, indices % value.shape[axis]))


def pad(context: Context) -> None:
    """A border of zeros, left pending for a convolution's padding."""
    value = context.value()
    if context.node.get("mode", "constant") != "constant":
        raise Refused(
            f"{context.node.get('mode')!r}",
            attribute="mode",
            advice="only borders of zeros can be expressed",
        )
    fill = context.option("value", 2, 0.0)
    if np.any(np.ravel(fill)):
        raise Refused(f"{fill}: borders are zero", attribute="value")
    amounts = [int(p) for p in np.ravel(context.option("pads", 1, ()))]
    if len(amounts) != 8 or context.node.inputs[3:4] not in ([], [""]):
        raise Refused(f"{amounts}: rows and columns of images are padded", attribute="pads")
    if not any(amounts):
        return context.bind(value)
    if amounts[0] or amounts[1] or amounts[4] or amounts[5] or min(amounts) < 0:
        raise Refused(f"{amounts}: only rows and columns can be padded", attribute="pads")
    n, c, h, w = require_image(value, "pads")
    top, left, bottom, right = amounts[2], amounts[3], amounts[6], amounts[7]
    if value.pad is not None:
        top, left, bottom, right = (a + b for a, b in zip(value.pad, (top, left, bottom, right)))
        value = replace(value, pad=None)
        h, w = value.dims[1:3]
    shape = (n, c, h + top + bottom, w + left + right)
    padded = replace(value, pad=(top, left, bottom, right), shape=shape)
    context.builder.bind(context.output, padded)


def _channel_axis(value: Value, axis: int) -> int:
    axis %= len(value.shape)
    require_image(value, "cuts")
    if axis != 1:
        raise Refused(
            f"{axis}: only channels can be cut out",
            attribute="axis",
            advice="cut out whole channels of an image",
        )
    return axis


def _channels(value: Value, axis: int, chosen: np.ndarray) -> Value:
    """A choice of the value's channels, pending."""
    before = np.arange(value.dims[3]) if value.select is None else value.select
    if chosen.size == 0 or chosen.min() < 0 or chosen.max() >= before.size:
        raise Refused(f"chooses other channels than the {before.size} that there are")
    affine = value.affine and (value.affine[0][chosen], value.affine[1][chosen])
    shape = tuple(chosen.size if i == axis else n for i, n in enumerate(value.shape))
    return replace(value, select=before[chosen], affine=affine, shape=shape)
