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
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from ..network import EngineError
from .card import make_card, output_samples, summary
from .comparing import compare_all, too_large
from .converter import Converted, convert_graph
from .graph import ConversionRefused, Refusal, SourceError
from .loading import Options, load
from .recipe import Recipe
from .verify import Difference

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
    loaded = load(source, options)
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
                differences = compare_all(loaded, trial, converted)
                failed = too_large(differences, converted)
                if failed:
                    raise VerificationFailed(failed)
                check = output_samples(trial)
            except EngineError as error:
                raise SourceError(f"{source}: the engine cannot run the result: {error}") from error
        task, scores = _task(converted)
        card = make_card(loaded.files, loaded.recipe, task, scores, options.label_offset)
        converted.model.card = {**card, "verification": summary(differences), "check": check}
    converted.model.write(destination)
    layers = len(converted.model.layers)
    return Report(destination, layers, converted.outputs, loaded.recipe, differences)


def _task(converted: Converted) -> tuple[str, str]:
    """What the outputs are for, and what their values are."""
    last = set(converted.outputs.values())
    kinds = {layer.keyword for layer in converted.model.layers if last.intersection(layer.outputs)}
    if "detectionout" in kinds:
        return "detector", "probabilities"
    return "classifier", "probabilities" if kinds == {"max"} else "logits"
