"""From a source graph to a model: maps every node, and collects all that cannot be mapped."""

from __future__ import annotations

import math
from dataclasses import dataclass, replace

import numpy as np

from ..model_file import Model, Softmax
from .builder import Builder
from .graph import ConversionRefused, Graph, Node, Refusal, Refused
from .mapping import OPERATORS, Context
from .recipe import Recipe
from .values import Value, dims_of

LARGEST_STAND_IN = 1 << 26

_HINTS = {
    "Sigmoid": "train with a rectifier, or cut the model before it",
    "Tanh": "train with a rectifier",
    "Resize": "the engine has no upsampling",
    "Upsample": "the engine has no upsampling",
    "ConvTranspose": "the engine has no upsampling",
    "LogSoftmax": "export the model with softmax, or without either",
    "Loop": "export the model without control flow",
    "If": "export the model without control flow",
    "NonMaxSuppression": "cut the model at its heads",
}


@dataclass
class Converted:
    """A model, and how the source's tensors can be found in it.

    visible: source tensors and where their values stand after a run
    outputs: the source's outputs and the engine's tensors, in the source's order
    """

    model: Model
    visible: dict[str, Value]
    outputs: dict[str, str]


def convert_graph(
    graph: Graph, recipe: Recipe, *, labels: list[str] | None = None, softmax: bool = False
) -> Converted:
    """Raises `ConversionRefused` with every reason at once."""
    _, channels, height, width = graph.shapes[graph.input]
    if height != width:
        reason = f"is {height} x {width}"
        refusal = Refusal(graph.input, "Input", "shape", reason, "export it with a square input")
        raise ConversionRefused([refusal])
    model = Model(
        input_size=height,
        image_size=height,
        input_channels=channels,
        input_name="data",
        need_crop=False,
        labels=labels or [],
    )
    builder = Builder(model, graph.uses(), graph.outputs)
    builder.bind(graph.input, _source_input(recipe, channels, height))
    refusals = [refusal for node in graph.nodes if (refusal := _map(graph, node, builder))]
    if not refusals:
        outputs, refusals = _finish(graph, builder, softmax)
    if refusals:
        raise ConversionRefused(refusals)
    return Converted(model, builder.visible, outputs)


def _source_input(recipe: Recipe, channels: int, size: int) -> Value:
    """The source's input as something still to be made of our bytes."""
    scale, shift = recipe.affine(channels)
    order = recipe.order(channels)
    plain = (scale == 1).all() and (shift == 0).all()
    return Value(
        "data",
        (1, size, size, channels),
        (1, channels, size, size),
        select=None if order == sorted(order) else np.array(order),
        affine=None if plain else (scale, shift),
        at_least_zero=bool((scale > 0).all() and (shift >= 0).all()),
    )


def _map(graph: Graph, node: Node, builder: Builder) -> Refusal | None:
    builder.consume(node.inputs)
    try:
        operator = OPERATORS.get(node.op)
        if operator is None:
            raise node.get("refused") or Refused(
                "has no counterpart", advice=_HINTS.get(node.op, "")
            )
        operator(Context(graph, node, builder))
        return None
    except Refused as refused:
        refusal = Refusal(node.name, node.op, refused.attribute, refused.reason, refused.advice)
    except (ValueError, TypeError, IndexError, KeyError, ZeroDivisionError, OverflowError) as error:
        refusal = Refusal(node.name, node.op, "", f"contradicts itself: {error}")
    # What follows is looked at all the same, as if this node had been mapped.
    for name in node.outputs:
        shape = graph.shapes.get(name)
        if shape is not None and math.prod(shape) < LARGEST_STAND_IN:
            dims, planar = dims_of(shape)
            builder.bind(name, Value(builder.name(name), dims, shape, planar))
    return None if _is_consequence(refusal) else refusal


def _is_consequence(refusal: Refusal) -> bool:
    """Whether the node was refused only because one before it was, whose shape is unknown."""
    return "which nothing computes" in refusal.reason


def _finish(graph: Graph, builder: Builder, softmax: bool) -> tuple[dict[str, str], list[Refusal]]:
    """Make every output of the source one output of the engine, listed once."""
    outputs: dict[str, str] = {}
    refusals = []
    for name in graph.outputs:
        if name not in builder.values:
            refusals.append(Refusal(name, "Output", "", "is not computed from the input"))
            continue
        value = builder.settled(builder.values[name])
        if softmax:
            value = replace(
                value, blob=builder.add(Softmax(), value, name + "_softmax", value.dims)
            )
            name += " (softmax)"
        elif not _is_listed_once(builder.model, value.blob) or value.blob in outputs.values():
            value = builder.copy(value, name + "_output")
        builder.bind(name, value, visible=not softmax)
        outputs[name] = value.blob
    return outputs, refusals


def _is_listed_once(model: Model, blob: str) -> bool:
    writers = sum(blob in layer.outputs for layer in model.layers)
    return writers == 1 and not any(blob in layer.inputs for layer in model.layers)
