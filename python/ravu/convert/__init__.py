"""Converts trained networks to model files, and proves that they compute the same.

    from ravu.convert import convert

    report = convert("resnet50.onnx", "resnet50.ravu")
    print(report.differences[0])                     # the worst tensor

From the command line: `python -m ravu.convert resnet50.onnx`, or for Caffe models
`python -m ravu.convert deploy.prototxt weights.caffemodel`. docs/converting.md says what can be
converted.
"""

from __future__ import annotations

import os
import tempfile
from collections.abc import Callable
from dataclasses import dataclass, field, replace
from functools import partial
from pathlib import Path
from typing import Any

from ..network import EngineError
from .caffe import load_caffe, read_caffe, read_mean
from .caffe.evaluate import CaffeSource
from .card import make_card, output_samples, summary
from .converter import Converted, convert_graph
from .graph import ConversionRefused, Graph, Refusal, SourceError
from .onnx_source import read_onnx
from .recipe import Recipe
from .ssd import attach_detector, read_detector
from .ssd_evaluate import SsdSource
from .verify import (
    TOLERANCE,
    TOLERANCE_WITH_NORMALISATION,
    Difference,
    OnnxSource,
    Source,
    compare,
)

__all__ = [
    "ConversionRefused",
    "Difference",
    "Options",
    "Recipe",
    "Refusal",
    "Report",
    "SourceError",
    "VerificationFailed",
    "convert",
]


@dataclass(frozen=True)
class Options:
    """recipe:       what the source expects of its pixels; what it leaves open is the usual
    labels:       the names of the classes
    label_offset: the score that the first label belongs to
    weights:      the caffemodel, where the source is a Caffe network description
    mean_file:    the mean image (binaryproto) of a Caffe network; its mean per channel is used
    ssd:          the description (JSON) of a detector in ONNX, which is cut at its heads
    softmax:      whether to append a softmax to the source's outputs
    verify:       whether to compare with the source before anything is written
    """

    recipe: Recipe = Recipe()
    labels: list[str] = field(default_factory=list)
    label_offset: int = 0
    weights: Path | None = None
    mean_file: Path | None = None
    ssd: Path | None = None
    softmax: bool = False
    verify: bool = True


@dataclass(frozen=True)
class Report:
    """What a conversion did.

    outputs:     the source's outputs and the tensors of the engine that hold them
    differences: of every compared tensor, worst first; empty when nothing was compared
    """

    path: Path
    layers: int
    outputs: dict[str, str]
    recipe: Recipe
    differences: list[Difference]

    def to_json(self) -> dict[str, Any]:
        return {
            "model": str(self.path),
            "layers": self.layers,
            "outputs": self.outputs,
            "input": self.recipe.to_json(),
            "differences": [difference.to_json() for difference in self.differences],
        }


class VerificationFailed(Exception):
    """The model does not compute what the source does: the tensors above the tolerance."""

    def __init__(self, differences: list[Difference]) -> None:
        worst = differences[0]
        super().__init__(
            f"{len(differences)} tensors differ from the source, {worst.tensor!r} by "
            f"{worst.relative:.1e} of its range"
        )
        self.differences = differences


def convert(
    source: str | os.PathLike[str],
    destination: str | os.PathLike[str] | None = None,
    options: Options = Options(),
) -> Report:
    """Convert a file, verify the result, and write it (by default beside the source).

    Raises `SourceError` for a file that cannot be read, `ConversionRefused` with everything that
    stands in the way, `VerificationFailed` for a result that is not the same. Nothing is written
    then.
    """
    source = Path(source)
    destination = Path(destination) if destination else source.with_suffix(".ravu")
    loaded = _load(source, options)
    if destination.resolve() in (file.resolve() for file in loaded.files):
        raise SourceError(f"{destination}: the result would replace the source")
    converted = convert_graph(
        loaded.graph, loaded.recipe, labels=options.labels, softmax=options.softmax
    )
    differences: list[Difference] = []
    if options.verify:
        with tempfile.TemporaryDirectory() as folder:
            trial = Path(folder) / "trial.ravu"
            converted.model.write(trial)
            try:
                differences = _verified(loaded, trial, converted)
                check = output_samples(trial)
            except EngineError as error:
                raise SourceError(f"{source}: the engine cannot run the result: {error}") from error
        task, scores = _task(converted)
        card = make_card(loaded.files, loaded.recipe, task, scores, options.label_offset)
        converted.model.card = {**card, "verification": summary(differences), "check": check}
    converted.model.write(destination)
    layers = len(converted.model.layers)
    return Report(destination, layers, converted.outputs, loaded.recipe, differences)


@dataclass(frozen=True)
class _Loaded:
    """files:  what was read
    runner: makes of a list of tensors what runs the source and fetches them
    """

    graph: Graph
    recipe: Recipe
    files: list[Path]
    runner: Callable[[list[str]], Source]


def _load(source: Path, options: Options) -> _Loaded:
    recipe = options.recipe
    if options.weights is None:
        if source.suffix == ".prototxt":
            raise SourceError(f"{source}: the weights (a caffemodel) are missing")
        graph = read_onnx(source)
        recipe = recipe.resolved(graph.shapes[graph.input][1])
        runner: Callable[[list[str]], Source] = partial(OnnxSource, source)
        if options.ssd is not None:
            detector = read_detector(options.ssd)
            attach_detector(graph, detector)
            runner = partial(SsdSource, source, detector)
        return _Loaded(graph, recipe, [source], runner)
    model = load_caffe(source, options.weights)
    files = [source, options.weights]
    if options.mean_file is not None:
        recipe = replace(recipe, mean=read_mean(options.mean_file))
        files.append(options.mean_file)
    recipe = recipe.resolved_for_caffe()
    return _Loaded(read_caffe(model), recipe, files, partial(CaffeSource, model))


def _verified(loaded: _Loaded, trial: Path, converted: Converted) -> list[Difference]:
    runner = loaded.runner(list(converted.visible))
    tables = _written_by(converted, "detectionout")
    differences = compare(runner, trial, loaded.recipe, converted.visible, tables)
    tolerances = _tolerances(converted)
    failed = [d for d in differences if not d.relative <= tolerances[d.tensor]]
    if failed:
        raise VerificationFailed(failed)
    return differences


def _written_by(converted: Converted, keyword: str) -> set[str]:
    """The source tensors that layers of one class write."""
    blobs = {
        o for layer in converted.model.layers if layer.keyword == keyword for o in layer.outputs
    }
    return {name for name, value in converted.visible.items() if value.blob in blobs}


def _tolerances(converted: Converted) -> dict[str, float]:
    """The engine's local response normalisation is an approximation: what comes after the first
    one is compared less strictly, and so are tables of detections."""
    exact: set[str] = {converted.model.input_name}
    for layer in converted.model.layers:
        if layer.keyword in ("normalize", "detectionout"):
            break
        exact.update(layer.outputs)
    return {
        name: TOLERANCE if value.blob in exact else TOLERANCE_WITH_NORMALISATION
        for name, value in converted.visible.items()
    }


def _task(converted: Converted) -> tuple[str, str]:
    """What the outputs are for, and what their values are."""
    last = set(converted.outputs.values())
    kinds = {layer.keyword for layer in converted.model.layers if last.intersection(layer.outputs)}
    if "detectionout" in kinds:
        return "detector", "probabilities"
    return "classifier", "probabilities" if kinds == {"max"} else "logits"
