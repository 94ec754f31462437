"""A model against its source: which tensors are compared, and how closely they must agree."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path

import numpy as np

from ..network import Mode
from ..outline import read_outline
from .converter import Converted, convert_graph
from .graph import SourceError
from .loading import Loaded
from .verify import TOLERANCE, TOLERANCE_WITH_NORMALISATION, Difference, compare


@dataclass(frozen=True)
class ComparedLayer:
    """index:      in execution order, of the last layer that writes the tensor
    output:     the engine's tensor
    difference: from the source's tensor
    above:      whether that is more than the tolerance
    """

    index: int
    output: str
    difference: Difference
    above: bool


def compare_layers(
    loaded: Loaded,
    model: Path,
    mode: Mode = Mode.CPU,
    inputs: Sequence[np.ndarray] = (),
    tolerance: float | None = None,
) -> list[ComparedLayer]:
    """All tensors that model and source both have, in the order of the layers.

    inputs:    pictures of the network's size; drawn ones where there are none
    tolerance: in parts of a tensor's range; None for those of a conversion

    Raises `SourceError` for the source of another model.
    """
    converted = convert_graph(loaded.graph, loaded.recipe)
    differences = compare_all(loaded, model, converted, mode, inputs)
    if not differences:
        raise SourceError("model and source have no tensor in common")
    if tolerance is None:
        above = {d.tensor for d in too_large(differences, converted)}
    else:
        above = {d.tensor for d in differences if not d.relative <= tolerance}
    order = read_outline(model).layer_of
    layers = []
    for difference in differences:
        blob = converted.visible[difference.tensor].blob
        layers.append(
            ComparedLayer(order[blob], blob, difference, difference.tensor in above)
        )
    return sorted(layers, key=lambda layer: layer.index)


def compare_all(
    loaded: Loaded,
    model: Path,
    converted: Converted,
    mode: Mode = Mode.CPU,
    inputs: Sequence[np.ndarray] = (),
) -> list[Difference]:
    """The differences of all tensors that both have, worst first."""
    written = read_outline(model).layer_of
    visible = {name: v for name, v in converted.visible.items() if v.blob in written}
    runner = loaded.runner(list(visible))
    tables = _written_by(converted, "detectionout")
    return compare(runner, model, loaded.recipe, visible, tables, mode, inputs)


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
