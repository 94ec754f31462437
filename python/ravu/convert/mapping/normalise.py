"""Softmax, local response normalisation, L2 normalisation."""

from __future__ import annotations

from dataclasses import replace

from ...model_file import Lrn, Reshape, Softmax
from ..graph import Refused
from .context import Context


def softmax(context: Context) -> None:
    node, builder = context.node, context.builder
    value = context.settled()
    rank = len(value.shape)
    axis = int(node.get("axis", 1 if node.opset < 13 else -1)) % rank
    if node.opset < 13 and axis < rank - 1 and any(n > 1 for n in value.shape[axis + 1 :]):
        raise Refused(
            f"{axis}: before operator set 13 this joins axes",
            attribute="axis",
            advice="export the model with a newer operator set",
        )
    size = value.shape[axis]
    on_channels = (axis == 1 and (value.is_image or (value.is_vector and rank == 2))) or (
        axis == rank - 1 and not value.planar and value.dims[3] == size
    )
    rows = axis == rank - 1 and (not value.planar or value.is_vector)
    if size < 2 or not (on_channels or rows):
        raise Refused(
            f"{axis} of {value.shape}",
            attribute="axis",
            advice="softmax over at least two channels, or over the last axis behind a "
            "change to channels last",
        )
    if not on_channels:
        n, h, w, c = value.dims
        dims = (n, h * w * c // size, 1, size)
        layer = Reshape(dims=(-1, dims[1], dims[2], dims[3]))
        blob = builder.add_view(layer, value, value.blob + "_rows", dims)
        value = replace(value, blob=blob, dims=dims, planar=False)
    blob = builder.add(Softmax(), value, context.output, value.dims)
    context.bind(replace(value, blob=blob, at_least_zero=True))


def lrn(context: Context) -> None:
    node = context.node
    value = context.settled()
    size = int(node.get("size", 0))
    if not value.is_image:
        raise Refused(f"normalises {value.shape}")
    if size < 1 or size % 2 == 0:
        raise Refused(
            f"{size}: windows have a channel in the middle here",
            attribute="size",
            advice="use an odd size",
        )
    layer = Lrn(
        size=size,
        k=node.get("bias", 1.0),
        alpha=node.get("alpha", 1e-4),
        beta=node.get("beta", 0.75),
    )
    blob = context.builder.add(layer, value, context.output, value.dims)
    context.bind(replace(value, blob=blob))


def l2_normalise(context: Context) -> None:
    """x / sqrt(sum of squares): a local response normalisation as wide as all channels, since the
    engine's own L2 layer scales by blocks of the image."""
    node = context.node
    value = context.settled()
    rank = len(value.shape)
    if int(node.get("axis", -1)) % rank != 1 or not (value.is_image or value.is_vector):
        raise Refused(f"{node.get('axis', -1)}: only channels are normalised", attribute="axis")
    if int(node.get("p", 2)) != 2:
        raise Refused(f"{node.get('p')}: only the square norm", attribute="p")
    size = 2 * value.dims[3] + 1
    layer = Lrn(size=size, k=0.0, alpha=float(size), beta=0.5)
    blob = context.builder.add(layer, value, context.output, value.dims)
    context.bind(replace(value, blob=blob))
