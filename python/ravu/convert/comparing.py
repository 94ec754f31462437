"""A model against its source: which tensors are compared, and how closely they must agree."""

from __future__ import annotations

from pathlib import Path

from ..network import Mode
from ..outline import read_outline
from .converter import Converted
from .loading import Loaded
from .verify import TOLERANCE, TOLERANCE_WITH_NORMALISATION, Difference, compare


def compare_all(
    loaded: Loaded, model: Path, converted: Converted, mode: Mode = Mode.CPU
) -> list[Difference]:
    """The differences of all tensors that both have, worst first."""
    written = read_outline(model).layer_of
    visible = {name: v for name, v in converted.visible.items() if v.blob in written}
    runner = loaded.runner(list(visible))
    tables = _written_by(converted, "detectionout")
    return compare(runner, model, loaded.recipe, visible, tables, mode)


def too_large(differences: list[Difference], converted: Converted) -> list[Difference]:
    """Those above their tolerance.

    The engine's local response normalisation is an approximation: what comes after the first one
    is compared less strictly, and so are tables of detections.
    """
    exact: set[str] = {converted.model.input_name}
    for layer in converted.model.layers:
        if layer.keyword in ("normalize", "detectionout"):
            break
        exact.update(layer.outputs)

    def tolerance(difference: Difference) -> float:
        is_exact = converted.visible[difference.tensor].blob in exact
        return TOLERANCE if is_exact else TOLERANCE_WITH_NORMALISATION

    return [d for d in differences if not d.relative <= tolerance(d)]


def _written_by(converted: Converted, keyword: str) -> set[str]:
    """The source tensors that layers of one class write."""
    blobs = {
        output
        for layer in converted.model.layers
        if layer.keyword == keyword
        for output in layer.outputs
    }
    return {name for name, value in converted.visible.items() if value.blob in blobs}
