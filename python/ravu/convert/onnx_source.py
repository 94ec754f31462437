"""Reading ONNX files: checks, constant folding, shapes.

Reading, checking and shape inference are the onnx package's; folding runs its reference
implementation on single nodes. A file names others only inside its own folder.
"""

from __future__ import annotations

import math
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import numpy as np
import onnx
import onnx.checker
import onnx.inliner
import onnx.numpy_helper
import onnx.reference
import onnx.shape_inference
from google.protobuf.message import DecodeError

from .graph import Graph, Node, SourceError
from .patterns import recognise

OLDEST_OPSET = 7
MAX_FOLDED = 1 << 26
MAX_INPUT = 1 << 28
MAX_PASSES = 8

# What is evaluated when all inputs are constants. None of these makes much out of little.
_FOLDED = frozenset(
    "Add Cast Ceil Concat Constant Div Equal Flatten Floor Gather Identity Mod Mul Neg Pow "
    "Reciprocal ReduceProd Reshape Shape Size Slice Split Sqrt Squeeze Sub Transpose Unsqueeze "
    "Where".split()
)
# These do when their first (or second) input, a shape, says so.
_FOLDED_TO_SHAPE = {"ConstantOfShape": 0, "Expand": 1}


def read_onnx(path: Path) -> Graph:
    """The network of an ONNX file. Raises `SourceError`; nothing else for damaged files."""
    model = load_checked(path)
    try:
        return _to_graph(model)
    except SourceError:
        raise
    except Exception as error:  # the onnx package raises bare exceptions too
        raise SourceError(f"{path}: {_first_line(error)}") from error


def load_checked(path: Path) -> onnx.ModelProto:
    """The file's message with all tensors inside, checked."""
    try:
        model = onnx.load_model(str(path), load_external_data=False)
    except OSError as error:
        raise SourceError(f"{path}: {error.strerror}") from error
    except (DecodeError, ValueError, TypeError) as error:
        raise SourceError(f"{path}: no ONNX model: {_first_line(error)}") from error
    for tensor in _tensors(model.graph):
        if tensor.data_location == onnx.TensorProto.EXTERNAL:
            _load_external(tensor, path.parent)
    try:
        onnx.checker.check_model(model)
    except Exception as error:  # bare exceptions too
        raise SourceError(f"{path}: {_first_line(error)}") from error
    if _opset(model) < OLDEST_OPSET:
        raise SourceError(
            f"{path}: operator set {_opset(model)}; at least {OLDEST_OPSET} is needed"
        )
    return onnx.inliner.inline_local_functions(model) if model.functions else model


def input_of(model: onnx.ModelProto) -> onnx.ValueInfoProto:
    """The one input that is no initializer."""
    constants = {tensor.name for tensor in model.graph.initializer}
    inputs = [value for value in model.graph.input if value.name not in constants]
    if len(inputs) != 1:
        raise SourceError(f"the model has {len(inputs)} inputs; exactly one image is expected")
    return inputs[0]


def _first_line(error: Exception) -> str:
    return (str(error).strip() or type(error).__name__).splitlines()[0]


def _opset(model: onnx.ModelProto) -> int:
    versions = [entry.version for entry in model.opset_import if entry.domain in ("", "ai.onnx")]
    return versions[0] if versions else 0


def _tensors(graph: onnx.GraphProto) -> Iterator[onnx.TensorProto]:
    yield from graph.initializer
    for node in graph.node:
        for attribute in node.attribute:
            if attribute.HasField("t"):
                yield attribute.t
            yield from attribute.tensors
            for inner in [*attribute.graphs, *([attribute.g] if attribute.HasField("g") else [])]:
                yield from _tensors(inner)


def _load_external(tensor: onnx.TensorProto, folder: Path) -> None:
    """Read a tensor's bytes from a file beside the model, and from nowhere else."""
    entries = {entry.key: entry.value for entry in tensor.external_data}
    folder = folder.resolve()
    target = (folder / entries.get("location", "")).resolve()
    if folder not in target.parents:
        raise SourceError(f"tensor {tensor.name!r} names a file outside the model's folder")
    try:
        offset, size = int(entries.get("offset", 0)), target.stat().st_size
        length = int(entries.get("length", size - offset))
        if offset < 0 or length < 0 or offset + length > size:
            raise SourceError(f"tensor {tensor.name!r}: {target.name} does not hold its values")
        with target.open("rb") as file:
            file.seek(offset)
            tensor.raw_data = file.read(length)
    except (OSError, ValueError) as error:
        raise SourceError(f"tensor {tensor.name!r}: {target.name}: {error}") from error
    del tensor.external_data[:]
    tensor.data_location = onnx.TensorProto.DEFAULT


def _fix_input(value: onnx.ValueInfoProto) -> tuple[int, ...]:
    """Set the batch to 1; every other size must be a number."""
    dims = value.type.tensor_type.shape.dim
    if len(dims) != 4:
        raise SourceError(f"input {value.name!r} has {len(dims)} axes; an image has 4")
    dims[0].Clear()
    dims[0].dim_value = 1
    sizes = tuple(dim.dim_value for dim in dims)
    if min(sizes) < 1:
        raise SourceError(f"input {value.name!r} has no fixed size: {sizes}; export it with one")
    if math.prod(sizes) > MAX_INPUT:
        raise SourceError(f"input {value.name!r} is too large: {sizes}")
    return sizes


def _to_graph(model: onnx.ModelProto) -> Graph:
    image = input_of(model)
    _fix_input(image)
    del model.graph.value_info[:]
    for output in model.graph.output:
        output.type.tensor_type.ClearField("shape")
    constants = {t.name: onnx.numpy_helper.to_array(t) for t in model.graph.initializer}
    for _ in range(MAX_PASSES):
        shapes = _shapes(model)
        if not _fold(model, constants, shapes):
            break
    nodes = [_node(proto, i, _opset(model)) for i, proto in enumerate(model.graph.node)]
    outputs = [value.name for value in model.graph.output]
    takes_bytes = image.type.tensor_type.elem_type == onnx.TensorProto.UINT8
    graph = Graph(nodes, constants, shapes, image.name, outputs, takes_bytes)
    recognise(graph)
    return graph


def _shapes(model: onnx.ModelProto) -> dict[str, tuple[int, ...]]:
    inferred = onnx.shape_inference.infer_shapes(model, data_prop=True).graph
    shapes = {}
    for value in [*inferred.input, *inferred.value_info, *inferred.output]:
        tensor = value.type.tensor_type
        if tensor.HasField("shape") and all(d.HasField("dim_value") for d in tensor.shape.dim):
            shapes[value.name] = tuple(d.dim_value for d in tensor.shape.dim)
    for tensor in model.graph.initializer:
        shapes[tensor.name] = tuple(tensor.dims)
    return shapes


def _fold(
    model: onnx.ModelProto,
    constants: dict[str, np.ndarray],
    shapes: dict[str, tuple[int, ...]],
) -> bool:
    """Replace nodes of constants by constants. Whether there were any."""
    kept = []
    for node in model.graph.node:
        values = _evaluate(node, model, constants, shapes)
        if values is None:
            kept.append(node)
            continue
        for name, value in zip(node.output, values):
            constants[name] = np.asarray(value)
            model.graph.initializer.append(onnx.numpy_helper.from_array(constants[name], name))
    changed = len(kept) < len(model.graph.node)
    del model.graph.node[:]
    model.graph.node.extend(kept)
    return changed


def _evaluate(
    node: onnx.NodeProto,
    model: onnx.ModelProto,
    constants: dict[str, np.ndarray],
    shapes: dict[str, tuple[int, ...]],
) -> list[Any] | None:
    names = [name for name in node.input if name]
    if node.domain not in ("", "ai.onnx"):
        return None
    if node.op_type == "Shape" and names[0] in shapes:
        inputs = {names[0]: np.broadcast_to(np.float32(0), shapes[names[0]])}
    elif all(name in constants for name in names):
        inputs = {name: constants[name] for name in names}
    else:
        return None
    if node.op_type in _FOLDED_TO_SHAPE:
        wanted = inputs[names[_FOLDED_TO_SHAPE[node.op_type]]]
        if wanted.size > 8 or math.prod(map(int, wanted)) > MAX_FOLDED:
            return None
    elif node.op_type not in _FOLDED:
        return None
    if sum(value.size for value in inputs.values()) > MAX_FOLDED and node.op_type != "Shape":
        return None
    try:
        return _run(node, model, inputs)
    except Exception:  # what cannot be evaluated is left for the mapping to refuse
        return None


def _run(node: onnx.NodeProto, model: onnx.ModelProto, inputs: dict[str, np.ndarray]) -> list[Any]:
    def described(name: str) -> onnx.ValueInfoProto:
        return onnx.helper.make_empty_tensor_value_info(name)

    graph = onnx.helper.make_graph(
        [node], "one", [described(name) for name in inputs], [described(n) for n in node.output]
    )
    single = onnx.helper.make_model(graph, opset_imports=model.opset_import)
    return onnx.reference.ReferenceEvaluator(single).run(None, inputs)


def _node(proto: onnx.NodeProto, index: int, opset: int) -> Node:
    domain = "" if proto.domain in ("", "ai.onnx") else proto.domain + "."
    return Node(
        domain + proto.op_type,
        proto.name or (proto.output[0] if proto.output else f"node {index}"),
        list(proto.input),
        list(proto.output),
        {attribute.name: _attribute(attribute) for attribute in proto.attribute},
        opset,
    )


def _attribute(attribute: onnx.AttributeProto) -> Any:
    value = onnx.helper.get_attribute_value(attribute)
    if isinstance(value, bytes):
        return value.decode("utf-8", "replace")
    return onnx.numpy_helper.to_array(value) if isinstance(value, onnx.TensorProto) else value
