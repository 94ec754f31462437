"""Operators that compute each value by itself, and sums of two tensors."""

from __future__ import annotations

from dataclasses import replace

import numpy as np

from ...model_file import EltWise, Power, Scale
from ..graph import Refused
from ..values import Value
from .context import Context


def identity(context: Context) -> None:
    context.bind(context.value())


def dropout(context: Context) -> None:
    context.only_first_output()
    if context.node.opset >= 12 and np.any(context.optional_constant(2, "training_mode")):
        raise Refused("is on", attribute="training_mode", advice="export the model for inference")
    identity(context)


def cast(context: Context) -> None:
    if context.node.get("to") not in (1, 10, 11):  # float, half, double
        raise Refused("only floating-point types are computed with", attribute="to")
    identity(context)


def relu(context: Context) -> None:
    value = context.settled()
    if value.at_least_zero:
        return context.bind(value)
    context.bind(context.builder.rectified(value, context.output))


def leaky_relu(context: Context) -> None:
    slope = float(context.node.get("alpha", 0.01))
    value = context.settled()
    if 0 <= slope <= 1:
        context.bind(context.builder.rectified(value, context.output, slope))
    else:
        context.bind(context.builder.sloped(value, np.float32(slope), context.output))


def prelu(context: Context) -> None:
    slopes = context.constant(1, "slope")
    value = context.settled()
    spread = _per_channel(slopes, value)
    if spread is None:
        raise Refused(
            f"has slopes of shape {slopes.shape} for {value.shape}",
            attribute="slope",
            advice="one slope, or one for each channel",
        )
    context.bind(context.builder.sloped(value, spread, context.output))


def absolute(context: Context) -> None:
    context.bind(context.builder.sloped(context.settled(), np.float32(-1), context.output))


def clip(context: Context) -> None:
    low = float(np.ravel(context.option("min", 1, -np.inf))[0])
    high = float(np.ravel(context.option("max", 2, np.inf))[0])
    _clip(context, context.settled(), low, high)


def _clip(context: Context, value: Value, low: float, high: float) -> None:
    limits = np.finfo(np.float32)
    low = -np.inf if low <= limits.min else low
    high = np.inf if high >= limits.max else high
    if low > high:
        raise Refused(f"limits values to {low} .. {high}")
    if value.at_least_zero and low <= 0:
        low = -np.inf
    positive = high >= 0 if value.at_least_zero else low >= 0
    result = context.builder.clipped(value, low, high, context.output)
    context.bind(replace(result, at_least_zero=positive))


def hard_sigmoid(context: Context) -> None:
    slope, shift = context.node.get("alpha", 0.2), context.node.get("beta", 0.5)
    value = context.builder.affine(context.settled(), slope, shift, context.output)
    _clip(context, value, 0.0, 1.0)


def negative(context: Context) -> None:
    context.bind(context.builder.affine(context.settled(), -1.0, 0.0, context.output))


def power(context: Context) -> None:
    exponent = context.constant(1, "exponent")
    if exponent.size != 1:
        raise Refused("has more than one value", attribute="exponent")
    _power(context, float(exponent.ravel()[0]))


def square_root(context: Context) -> None:
    _power(context, 0.5)


def reciprocal(context: Context) -> None:
    _power(context, -1.0)


def _power(context: Context, exponent: float) -> None:
    value = context.settled()
    if exponent == 1:
        return context.bind(value)
    blob = context.builder.add(Power(power=exponent), value, context.output, value.dims)
    context.bind(replace(value, blob=blob, at_least_zero=exponent in (0, 0.5) or exponent % 2 == 0))


def add(context: Context) -> None:
    if len(context.node.inputs) == 1:
        return identity(context)
    constants = [i for i in range(len(context.node.inputs)) if context.is_constant(i)]
    if len(context.node.inputs) == 2 and constants:
        value = context.value(1 - constants[0])
        return _with_constant(context, value, 1.0, context.constant(constants[0], "B"))
    _sum(context, [context.settled(i) for i in range(len(context.node.inputs))])


def subtract(context: Context) -> None:
    if context.is_constant(1):
        return _with_constant(context, context.value(), 1.0, -context.constant(1, "B"))
    if context.is_constant(0):
        return _with_constant(context, context.value(1), -1.0, context.constant(0, "A"))
    minuend, subtrahend = context.settled(0), context.settled(1)
    _sum(context, [minuend, _negated(context, subtrahend)])


def multiply(context: Context) -> None:
    if not any(context.is_constant(i) for i in range(2)):
        raise Refused(
            "multiplies two computed tensors",
            advice="products on the processor have a constant factor; export the model "
            "without gates such as squeeze-and-excitation, swish or attention",
        )
    position = 0 if context.is_constant(0) else 1
    _with_constant(context, context.value(1 - position), context.constant(position, "B"), 0.0)


def divide(context: Context) -> None:
    if not context.is_constant(1):
        raise Refused("divides by a computed tensor", advice="only constants can be divided by")
    with np.errstate(all="ignore"):
        factor = 1 / context.constant(1, "B").astype(np.float64)
    if not np.isfinite(factor).all():
        raise Refused("is zero", attribute="B")
    _with_constant(context, context.value(), factor, 0.0)


def maximum(context: Context) -> None:
    """max(a, b) = b + relu(a - b)."""
    _extreme(context, larger=True)


def minimum(context: Context) -> None:
    """min(a, b) = b - relu(b - a)."""
    _extreme(context, larger=False)


def _extreme(context: Context, *, larger: bool) -> None:
    builder = context.builder
    if len(context.node.inputs) != 2:
        raise Refused(
            f"compares {len(context.node.inputs)} tensors", advice="compare two at a time"
        )
    for i in range(2):
        if context.is_constant(i):
            limit = context.constant(i, "B")
            if limit.size != 1:
                raise Refused("has more than one value", attribute=f"input {i}")
            bound = float(limit.ravel()[0])
            low, high = (bound, np.inf) if larger else (-np.inf, bound)
            return _clip(context, context.settled(1 - i), low, high)
    a, b = _alike(context, [context.settled(0), context.settled(1)])
    pair = [a, _negated(context, b)] if larger else [b, _negated(context, a)]
    blob = builder.add(EltWise(), pair, context.output + "_difference", a.dims)
    over = builder.rectified(replace(a, blob=blob, at_least_zero=False), "")
    if not larger:
        over = builder.affine(over, -1.0, 0.0, "")
    blob = builder.add(EltWise(), [b, over], context.output, a.dims)
    context.bind(replace(a, blob=blob, at_least_zero=a.at_least_zero and b.at_least_zero))


def _negated(context: Context, value: Value) -> Value:
    layer = Scale(scales=np.full(value.dims[3], -1, np.float32))
    blob = context.builder.add(layer, value, context.output + "_negative", value.dims)
    return replace(value, blob=blob, at_least_zero=False)


def _sum(context: Context, values: list[Value]) -> None:
    values = _alike(context, values)
    blob = context.builder.add(EltWise(), values, context.output, values[0].dims)
    positive = all(value.at_least_zero for value in values)
    context.bind(replace(values[0], blob=blob, at_least_zero=positive))


def _alike(context: Context, values: list[Value]) -> list[Value]:
    """The values in blobs of one shape and order."""
    first = values[0]
    if any(value.shape != first.shape for value in values):
        shapes = ", ".join(str(value.shape) for value in values)
        raise Refused(
            f"combines tensors of the shapes {shapes}",
            advice="computed tensors of different shapes cannot be combined",
        )
    if all(value.dims == first.dims and value.planar == first.planar for value in values):
        return values
    if all(not value.planar or value.is_vector for value in values):
        return [context.builder.flat(value) for value in values]
    raise Refused("combines tensors whose values stand in different orders")


def _with_constant(
    context: Context, value: Value, factor: float | np.ndarray, term: float | np.ndarray
) -> None:
    """value * factor + term, where one of the two may be an array of the source's shape."""
    value = context.builder.settled(value)
    factors, terms = _per_channel(factor, value), _per_channel(term, value)
    if factors is not None and terms is not None:
        return context.bind(context.builder.affine(value, factors, terms, context.output))
    factors, terms = _per_element(factor, value), _per_element(term, value)
    layer = Scale(scales=factors, bias=terms if terms.any() else None)
    blob = context.builder.add(layer, value, context.output, value.dims)
    context.bind(replace(value, blob=blob, at_least_zero=False))


def _per_channel(constant: float | np.ndarray, value: Value) -> np.ndarray | None:
    """A constant operand as one value, or one per channel of the blob; None if it is neither."""
    constant = np.asarray(constant, np.float64)
    if constant.size == 1:
        return constant.ravel()
    rank = len(value.shape)
    axis = 1 if value.planar else rank - 1
    shape = (1,) * (rank - constant.ndim) + constant.shape
    wanted = tuple(value.dims[3] if i == axis else 1 for i in range(rank))
    channels = value.shape[axis] == value.dims[3] if rank > axis else False
    return constant.ravel() if shape == wanted and channels else None


def _per_element(constant: float | np.ndarray, value: Value) -> np.ndarray:
    """A constant operand spread over one image, in the engine's order."""
    n, h, w, c = value.dims
    shape = value.shape
    if n != 1 or len(np.shape(constant)) > len(shape):
        raise Refused(f"has a constant of shape {np.shape(constant)} for {shape}")
    try:
        spread = np.broadcast_to(np.asarray(constant, np.float32), shape)
    except ValueError:
        raise Refused(f"has a constant of shape {np.shape(constant)} for {shape}") from None
    if value.planar:
        spread = spread.reshape(c, h, w).transpose(1, 2, 0)
    return np.ascontiguousarray(spread).ravel()
