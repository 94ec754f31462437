"""Converts trained networks to model files, and proves that they compute the same.

    from ravu.convert import convert

    report = convert("resnet50.onnx", "resnet50.ravu")
    print(report.differences[0])                     # the worst tensor

From the command line: `python -m ravu.convert resnet50.onnx`. docs/converting.md says what can be
converted.
"""

from __future__ import annotations

import os
import tempfile
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from ..network import EngineError
from .card import make_card, output_samples
from .converter import Converted, convert_graph
from .graph import ConversionRefused, Refusal, SourceError
from .onnx_source import read_onnx
from .recipe import Recipe
from .verify import (
    TOLERANCE,
    TOLERANCE_WITH_NORMALISATION,
    Difference,
    OnnxSource,
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
    softmax:      whether to append a softmax to the source's outputs
    verify:       whether to compare with the source before anything is written
    """

    recipe: Recipe = Recipe()
    labels: list[str] = field(default_factory=list)
    label_offset: int = 0
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
    if destination.resolve() == source.resolve():
        raise SourceError(f"{source}: the result would replace the source")
    graph = read_onnx(source)
    channels = graph.shapes[graph.input][1]
    recipe = options.recipe.resolved(channels)
    converted = convert_graph(graph, recipe, labels=options.labels, softmax=options.softmax)
    differences: list[Difference] = []
    if options.verify:
        with tempfile.TemporaryDirectory() as folder:
            trial = Path(folder) / "trial.ravu"
            converted.model.write(trial)
            try:
                differences = _verified(source, trial, recipe, converted)
                check = output_samples(trial)
            except EngineError as error:
                raise SourceError(f"{source}: the engine cannot run the result: {error}") from error
        scores = "probabilities" if _ends_in_softmax(converted) else "logits"
        card = make_card(source, "onnx", recipe, scores, options.label_offset, differences)
        converted.model.card = {**card, "check": check}
    converted.model.write(destination)
    return Report(destination, len(converted.model.layers), converted.outputs, recipe, differences)


def _verified(source: Path, trial: Path, recipe: Recipe, converted: Converted) -> list[Difference]:
    differences = compare(OnnxSource(source, converted.visible), trial, recipe, converted.visible)
    tolerances = _tolerances(converted)
    failed = [d for d in differences if not d.relative <= tolerances[d.tensor]]
    if failed:
        raise VerificationFailed(failed)
    return differences


def _tolerances(converted: Converted) -> dict[str, float]:
    """The engine's local response normalisation is an approximation: what comes after the first
    one is compared less strictly."""
    exact: set[str] = {converted.model.input_name}
    for layer in converted.model.layers:
        if layer.keyword == "normalize":
            break
        exact.update(layer.outputs)
    return {
        name: TOLERANCE if value.blob in exact else TOLERANCE_WITH_NORMALISATION
        for name, value in converted.visible.items()
    }


def _ends_in_softmax(converted: Converted) -> bool:
    last = set(converted.outputs.values())
    return all(
        layer.keyword == "max"
        for layer in converted.model.layers
        if last.intersection(layer.outputs)
    )
