"""What is to be converted: the options, and reading a source of either format."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass, field, replace
from functools import partial
from pathlib import Path
from typing import Any

from ..model_file import ModelFileError
from ..outline import Outline, read_outline
from .caffe import load_caffe, read_caffe, read_mean
from .caffe.evaluate import CaffeSource
from .graph import Graph, SourceError
from .onnx_source import read_onnx
from .recipe import Recipe
from .ssd import attach_detector, read_detector
from .ssd_evaluate import SsdSource
from .verify import OnnxSource, Source


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
class Loaded:
    """A source that was read.

    files:  where from: all that the result depends on
    runner: makes of a list of tensors what runs the source and fetches them
    """

    graph: Graph
    recipe: Recipe
    files: list[Path]
    runner: Callable[[list[str]], Source]


def load(source: Path, options: Options) -> Loaded:
    """Read a source of either format. Raises `SourceError`."""
    recipe = options.recipe
    if options.weights is None:
        if source.suffix == ".prototxt":
            raise SourceError(f"{source}: the weights (a caffemodel) are missing")
        graph = read_onnx(source)
        if graph.takes_bytes and recipe.range is None:
            recipe = replace(recipe, range=1.0)
        recipe = recipe.resolved(graph.shapes[graph.input][1])
        runner: Callable[[list[str]], Source] = partial(OnnxSource, source)
        files = [source]
        if options.ssd is not None:
            detector = read_detector(options.ssd)
            attach_detector(graph, detector)
            runner = partial(SsdSource, source, detector)
            files.append(options.ssd)
        return Loaded(graph, recipe, files, runner)
    model = load_caffe(source, options.weights)
    files = [source, options.weights]
    if options.mean_file is not None:
        recipe = replace(recipe, mean=read_mean(options.mean_file))
        files.append(options.mean_file)
    recipe = recipe.resolved_for_caffe()
    return Loaded(read_caffe(model), recipe, files, partial(CaffeSource, model))


def load_for(model: Path, source: Path, weights: Path | None, ssd: Path | None) -> Loaded:
    """The source of a converted model, its recipe as the model's card gives it. Raises
    `SourceError`, and `ModelFileError` for a model without a whole card."""
    outline = read_outline(model)
    try:
        given = card_of_conversion(outline)["input"]
        recipe = replace(Recipe.from_json(given["folded"]), fit=str(given.get("fit", "squash")))
    except (AttributeError, KeyError, TypeError, ValueError) as error:
        raise ModelFileError("its card does not say what was folded into it") from error
    loaded = load(source, Options(recipe=recipe, weights=weights, ssd=ssd))
    theirs = list(loaded.graph.shapes[loaded.graph.input][1:])
    size, channels = outline.takes
    if theirs != [channels, size, size]:
        raise SourceError(
            f"{source}: takes images of {theirs} (channels, rows, columns), and the model of"
            f" {[channels, size, size]}"
        )
    return loaded


def card_of_conversion(outline: Outline) -> dict[str, Any]:
    """The card that `ravu convert` wrote. Raises `ModelFileError` when there is none."""
    if outline.card is None:
        raise ModelFileError("has no card; ravu convert writes one")
    return outline.card
