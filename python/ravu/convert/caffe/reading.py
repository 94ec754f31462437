"""Reads Caffe files and turns a deploy network into a source graph.

Layers that work in place get a name of their own for what they write, so that every tensor of the
graph is written once.
"""

from __future__ import annotations

import math
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

import numpy as np
from google.protobuf import text_format
from google.protobuf.message import DecodeError

from ..graph import Graph, Refused, SourceError
from .layers import LAYERS, Reader
from .schema import V1_TYPES, BlobProto, NetParameter

# The types of the old form whose new names are not the same letters.
_V1_NAMES = {
    "ABSVAL": "AbsVal", "BNLL": "BNLL", "INNER_PRODUCT": "InnerProduct", "LRN": "LRN",
    "RELU": "ReLU", "TANH": "TanH", "SOFTMAX_LOSS": "SoftmaxWithLoss", "ARGMAX": "ArgMax",
}  # fmt: skip
_DATA = frozenset("Data ImageData WindowData HDF5Data MemoryData DummyData AnnotatedData".split())
MAX_INPUT = 1 << 28


@dataclass
class CaffeLayer:
    """One layer of either form.

    tops, bottoms: tensor names of the graph, each written once
    blobs:         its weights
    """

    name: str
    kind: str
    bottoms: list[str]
    tops: list[str]
    message: Any
    blobs: list[np.ndarray] = field(default_factory=list)


@dataclass
class CaffeModel:
    """input:  the input's name
    shape:  its batch (1), channels, height, width
    layers: in the order of execution
    outputs: what no layer reads
    """

    input: str
    shape: tuple[int, int, int, int]
    layers: list[CaffeLayer]
    outputs: list[str]


def load_caffe(prototxt: Path, weights: Path) -> CaffeModel:
    """Read and link both files. Raises `SourceError` and nothing else for damaged ones."""
    network = NetParameter()
    try:
        text = prototxt.read_text(encoding="utf-8")
        text_format.Parse(text, network, allow_unknown_field=True)
    except OSError as error:
        raise SourceError(f"{prototxt}: {error.strerror}") from error
    except (text_format.ParseError, UnicodeDecodeError, RecursionError) as error:
        raise SourceError(f"{prototxt}: {error}") from error
    blobs = _read_weights(weights)
    input_name, shape = _input(network, prototxt)
    return _link(network, input_name, shape, blobs)


def read_mean(path: Path) -> list[float]:
    """The mean of each channel of a mean image (binaryproto)."""
    message = _parse(path, BlobProto())
    values = _blob(message, path.name)
    if values.ndim < 3:
        raise SourceError(f"{path}: no mean image, its shape is {values.shape}")
    channels = values.reshape(-1, *values.shape[-2:])
    return [float(plane.mean(dtype=np.float64)) for plane in channels]


def read_caffe(model: CaffeModel) -> Graph:
    """The graph of a linked model."""
    graph = Graph([], {}, {model.input: model.shape}, model.input, model.outputs)
    for layer in model.layers:
        reader = Reader(
            graph, layer.name, layer.kind, layer.bottoms, layer.tops, layer.message, layer.blobs
        )
        try:
            _read_layer(reader)
        except (ValueError, TypeError, IndexError, KeyError, ZeroDivisionError) as error:
            raise SourceError(f"layer {layer.name!r} ({layer.kind}): {error}") from error
    graph.without_dead_ends()
    return graph


def _read_layer(reader: Reader) -> None:
    convert = LAYERS.get(reader.kind)
    try:
        if convert is None:
            raise Refused("has no counterpart")
        convert(reader)
    except Refused as refused:
        # The mapping lists it, together with what it refuses itself. Reading goes on as if it kept
        # its input's shape.
        reader.node("Caffe." + reader.kind, reader.bottoms, refused=refused)
        first = reader.bottoms[0] if reader.bottoms else reader.graph.input
        reader.gives(*[reader.graph.shapes[first]] * len(reader.tops))


def _parse(path: Path, message: Any) -> Any:
    try:
        message.ParseFromString(path.read_bytes())
    except OSError as error:
        raise SourceError(f"{path}: {error.strerror}") from error
    except (DecodeError, RecursionError) as error:
        raise SourceError(f"{path}: {error}") from error
    return message


def _read_weights(path: Path) -> dict[str, list[np.ndarray]]:
    """The blobs of every layer by its name."""
    network = _parse(path, NetParameter())
    found: dict[str, list[np.ndarray]] = {}
    for layer in [*network.layers, *network.layer]:
        if layer.blobs:
            found[layer.name] = [_blob(blob, layer.name) for blob in layer.blobs]
    if not found:
        raise SourceError(f"{path}: no layer has weights")
    return found


def _blob(blob: Any, name: str) -> np.ndarray:
    if blob.HasField("shape"):
        shape = tuple(blob.shape.dim)
    else:
        shape = (blob.num, blob.channels, blob.height, blob.width)
    values = np.array(blob.double_data or blob.data, np.float32)
    if any(n < 0 for n in shape) or math.prod(shape) != values.size:
        raise SourceError(f"{name!r}: {values.size} weights in a shape of {shape}")
    return values.reshape(shape)


def _input(network: Any, path: Path) -> tuple[str, tuple[int, int, int, int]]:
    """Name and shape of the one input, whose batch becomes 1."""
    names, shapes = list(network.input), [tuple(s.dim) for s in network.input_shape]
    if network.input_dim:
        shapes = [tuple(network.input_dim[i : i + 4]) for i in range(0, len(network.input_dim), 4)]
    for layer in network.layer:
        if layer.type == "Input":
            names += layer.top
            shapes += [tuple(s.dim) for s in layer.input_param.shape]
    if len(names) != 1 or len(shapes) != 1:
        raise SourceError(f"{path}: {len(names)} inputs; a deploy network with one is expected")
    if len(shapes[0]) != 4 or min(shapes[0]) < 1 or math.prod(shapes[0]) > MAX_INPUT:
        raise SourceError(f"{path}: an input of shape {shapes[0]}; an image has 4 axes")
    return names[0], (1, *shapes[0][1:])  # type: ignore[return-value]


def _link(
    network: Any,
    input_name: str,
    shape: tuple[int, int, int, int],
    blobs: dict[str, list[np.ndarray]],
) -> CaffeModel:
    current, layers, read = {input_name: input_name}, [], set()
    for message in [*network.layers, *network.layer]:
        kind = _kind(message)
        if kind in ("Input", "Silence") or kind in _DATA or not _is_for_testing(message):
            continue
        missing = [name for name in message.bottom if name not in current]
        if missing:
            raise SourceError(f"layer {message.name!r} reads {missing[0]!r}, which nobody writes")
        bottoms = [current[name] for name in message.bottom]
        read.update(bottoms)
        tops = []
        for name in message.top:
            own = name if name not in current.values() else f"{name}/{message.name}"
            while own in current.values() or own in tops or own in read:
                own += "'"
            tops.append(own)
        current.update(zip(message.top, tops))
        layers.append(
            CaffeLayer(message.name, kind, bottoms, tops, message, blobs.get(message.name, []))
        )
    outputs = [top for layer in layers for top in layer.tops if top not in read]
    if not outputs:
        raise SourceError("the network has no layers")
    return CaffeModel(input_name, shape, layers, outputs)


def _kind(message: Any) -> str:
    if isinstance(message.type, str):
        return message.type
    name = V1_TYPES[message.type]
    return _V1_NAMES.get(name) or "".join(part.capitalize() for part in name.split("_"))


def _is_for_testing(message: Any) -> bool:
    """Whether a layer belongs to the phase in which a trained network runs."""
    train = 0
    if any(rule.HasField("phase") and rule.phase == train for rule in message.include):
        return False
    return not any(rule.HasField("phase") and rule.phase != train for rule in message.exclude)
