"""Single-shot detectors whose source has no detection layer: cut at the heads, and completed.

A description in JSON names the tensors of the heads and says what the source's own program does
with them:

    {
      "classes": 21,
      "maps": [
        {"locations": "loc0", "scores": "conf0", "min_size": 30, "max_size": 60,
         "aspect_ratios": [2, 0.5], "step": 8},
        ...
      ],
      "variances": [0.1, 0.1, 0.2, 0.2],
      "keep_top_k": 200
    }

Heads are outputs of convolutions, (1, boxes * values, rows, columns), box after box. Sizes and
steps are in pixels of the image; the boxes of a cell are the square of min_size, the square of
sqrt(min_size * max_size) where there is a max_size, and one of each aspect ratio (no reciprocals
are added).
"""

from __future__ import annotations

import json
from collections.abc import Sequence
from dataclasses import dataclass, fields
from pathlib import Path
from typing import Any

from .graph import Graph, Node, SourceError

OUTPUT = "detections"


@dataclass(frozen=True)
class Map:
    """One feature map. step: pixels from cell to cell; 0 for the image divided by the map."""

    locations: str
    scores: str
    min_size: float
    max_size: float = 0.0
    aspect_ratios: Sequence[float] = ()
    step: float = 0.0

    @property
    def boxes(self) -> int:
        """Of one cell."""
        return 1 + (self.max_size > 0) + len(self.aspect_ratios)


@dataclass(frozen=True)
class Detector:
    """What the source's program does behind the heads.

    classes:     with the background, whose index is `background`
    softmax:     whether the scores of one box still have to go through a softmax
    top_k:       boxes of a class that compete; -1 for all
    keep_top_k:  rows of the result
    """

    classes: int
    maps: Sequence[Map]
    variances: Sequence[float] = (0.1, 0.1, 0.2, 0.2)
    offset: float = 0.5
    clip: bool = False
    background: int = 0
    softmax: bool = True
    confidence_threshold: float = 0.01
    nms_threshold: float = 0.45
    top_k: int = 400
    keep_top_k: int = 200


def read_detector(path: Path) -> Detector:
    """Read a description. Raises `SourceError` for one that is damaged or incomplete."""
    try:
        values = json.loads(path.read_text(encoding="utf-8"))
        maps = [_make(Map, entry) for entry in values.pop("maps")]
        detector = _make(Detector, {**values, "maps": maps})
    except OSError as error:
        raise SourceError(f"{path}: {error.strerror}") from error
    except (ValueError, TypeError, KeyError, AttributeError, RecursionError) as error:
        raise SourceError(f"{path}: {error}") from error
    if not maps or detector.classes < 2 or len(detector.variances) != 4:
        raise SourceError(f"{path}: at least one map, two classes and four variances are needed")
    return detector


def _make(kind: type, values: dict[str, Any]) -> Any:
    """A dataclass of JSON values. Raises `TypeError` for unknown keys and for wrong types."""
    for field in fields(kind):
        value = values.get(field.name)
        text = str(field.type)
        allowed = {"int": (int,), "float": (int, float), "bool": (bool,), "str": (str,)}.get(text)
        if value is not None and allowed and not isinstance(value, allowed):
            raise TypeError(f"{field.name!r} must be of type {text}")
        if value is not None and "[float]" in text:
            values[field.name] = [float(entry) for entry in value]
    return kind(**values)


def attach_detector(graph: Graph, detector: Detector) -> None:
    """Replace the graph's outputs by a table of detections, made from its heads."""
    joined: dict[str, list[str]] = {"locations": [], "scores": [], "priors": []}
    for entry in detector.maps:
        for what, values in (("locations", 4), ("scores", detector.classes)):
            joined[what].append(_flat(graph, getattr(entry, what), entry.boxes * values))
        joined["priors"].append(_priors(graph, detector, entry))
    for what, axis in (("locations", 1), ("scores", 1), ("priors", 2)):
        sizes = [graph.shapes[name][axis] for name in joined[what]]
        shape = (1, sum(sizes)) if axis == 1 else (1, 2, sum(sizes))
        _add(graph, "Concat", joined[what], _name(what), shape, axis=axis)
    scores, count = _name("scores"), graph.shapes[_name("scores")][1]
    if detector.softmax:
        rows = (1, count // detector.classes, detector.classes)
        scores = _add(graph, "Reshape", [scores], _name("rows"), rows)
        scores = _add(graph, "Softmax", [scores], _name("softmax"), rows, axis=-1)
        scores = _add(graph, "Flatten", [scores], _name("probabilities"), (1, count))
    inputs = [_name("locations"), scores, _name("priors")]
    _add(
        graph,
        "DetectionOutput",
        inputs,
        OUTPUT,
        (1, 1, detector.keep_top_k, 7),
        num_classes=detector.classes,
        share_location=True,
        background=detector.background,
        code_type=2,
        encoded=False,
        top_k=detector.top_k,
        keep_top_k=detector.keep_top_k,
        confidence=detector.confidence_threshold,
        nms=detector.nms_threshold,
        eta=1.0,
    )
    graph.outputs = [OUTPUT]
    graph.inner.remove(OUTPUT)
    graph.without_dead_ends()


def _name(what: str) -> str:
    return f"ssd:{what}"


def _add(
    graph: Graph, op: str, inputs: list[str], output: str, shape: tuple[int, ...], **attributes: Any
) -> str:
    graph.nodes.append(Node(op, output, inputs, [output], attributes))
    graph.shapes[output] = shape
    graph.inner.add(output)
    return output


def _flat(graph: Graph, head: str, channels: int) -> str:
    if not any(head in node.outputs for node in graph.nodes):
        raise SourceError(f"no output of the network depends on a tensor {head!r}")
    shape = graph.shapes.get(head)
    if shape is None or len(shape) != 4 or shape[1] != channels:
        raise SourceError(f"head {head!r} has the shape {shape}; {channels} channels are expected")
    n, c, h, w = shape
    rows = _add(graph, "Transpose", [head], _name(head + ":rows"), (n, h, w, c), perm=(0, 2, 3, 1))
    return _add(graph, "Flatten", [rows], _name(head + ":flat"), (n, c * h * w))


def _priors(graph: Graph, detector: Detector, entry: Map) -> str:
    n, _, h, w = graph.shapes[entry.locations]
    image = graph.shapes[graph.input][2:]
    larger = [entry.max_size] if entry.max_size else []
    return _add(
        graph,
        "PriorBox",
        [entry.locations, graph.input],
        _name(entry.locations + ":priors"),
        (n, 2, h * w * entry.boxes * 4),
        min_size=[entry.min_size],
        max_size=larger,
        aspect_ratio=list(entry.aspect_ratios),
        clip=detector.clip,
        variance=list(detector.variances),
        image=image,
        step=(entry.step, entry.step),
        offset=detector.offset,
    )
