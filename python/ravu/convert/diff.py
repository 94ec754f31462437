"""The command `ravu diff` of a converted model and its source: layer by layer, where they part.

Exit status: 0 all layers agree within the tolerance, 1 one does not or something cannot be read,
2 misused.
"""

from __future__ import annotations

import argparse
import sys
from collections.abc import Sequence
from pathlib import Path
from typing import Any

import numpy as np

from ..model_file import ModelFileError
from ..network import EngineError, Mode, Network
from .comparing import ComparedLayer, compare_layers
from .graph import ConversionRefused, SourceError
from .json_text import json_text
from .loading import load_for

_PROBLEMS = (ModelFileError, EngineError, SourceError, ConversionRefused, OSError)


def main(arguments: Sequence[str] | None = None) -> int:
    """Compare a model with its source and print the result. Returns the exit status."""
    parser = _parser()
    options = parser.parse_args(arguments)
    takes_weights = options.source.suffix == ".prototxt"
    if len(options.more) > 1 + takes_weights or (takes_weights and not options.more):
        parser.error("after MODEL and SRC come the weights of a prototxt, then perhaps an image")
    options.weights = options.more.pop(0) if takes_weights else None
    options.image = options.more[0] if options.more else None
    try:
        result = _compare(options)
    except _PROBLEMS as problem:
        print(f"ravu diff: {options.model}: {problem}", file=sys.stderr)
        return 1
    print(json_text(result) if options.json else _text(result))
    return 0 if result["same"] else 1


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="ravu diff",
        usage="ravu diff MODEL SRC [CAFFEMODEL] [IMAGE] [options]",
        description="Show layer by layer where a converted model and its source part. Two models, "
        "or one in two run modes: see ravu diff --help.",
    )
    parser.add_argument("model", type=Path, metavar="MODEL", help="a model that ravu convert wrote")
    parser.add_argument("source", type=Path, metavar="SRC", help="its ONNX or prototxt")
    parser.add_argument(
        "more",
        type=Path,
        nargs="*",
        metavar="FILE",
        help="the weights of a prototxt; then a picture (default: five drawn ones)",
    )
    parser.add_argument("--ssd", type=Path, metavar="JSON", help="the heads of a detector in ONNX")
    parser.add_argument(
        "--mode", type=int, choices=[int(m) for m in Mode], default=0, help="run mode of the model"
    )
    parser.add_argument(
        "--tolerance",
        type=float,
        help="greatest error in parts of a tensor's range (default: a conversion's, 1e-4 before "
        "and 1e-3 behind a local response normalisation)",
    )
    parser.add_argument("--json", action="store_true", help="print one JSON value instead of text")
    return parser


def _compare(options: argparse.Namespace) -> dict[str, Any]:
    loaded = load_for(options.model, options.source, options.weights, options.ssd)
    inputs = []
    if options.image is not None:
        with Network(options.model) as network:
            _, height, width, channels = network.input_shape
        inputs = [_read_picture(options.image, (width, height), channels, loaded.recipe.fit)]
    layers = compare_layers(loaded, options.model, Mode(options.mode), inputs, options.tolerance)
    first = next((layer for layer in layers if layer.above), None)
    return {
        "model": str(options.model),
        "mode": options.mode,
        "source": str(options.source),
        "image": None if options.image is None else str(options.image),
        "tolerance": options.tolerance,
        "same": first is None,
        "first_above": None if first is None else _to_json(first),
        "layers": [_to_json(layer) for layer in layers],
    }


def _read_picture(path: Path, size: tuple[int, int], channels: int, fit: str) -> np.ndarray:
    """Bytes of (height, width, channels); the grey of letterbox borders is that of the program."""
    from PIL import Image, ImageOps

    try:
        with Image.open(path) as file:
            picture = file.convert("L" if channels == 1 else "RGB")
    except (OSError, SyntaxError, ValueError, Image.DecompressionBombError) as error:
        raise SourceError(f"{path}: {error}") from error
    if fit == "crop":
        picture = ImageOps.fit(picture, size)
    elif fit == "letterbox":
        grey = 128 if channels == 1 else (128, 128, 128)
        picture = ImageOps.pad(picture, size, color=grey)
    else:
        picture = picture.resize(size)
    return np.asarray(picture).reshape(size[1], size[0], -1)


def _to_json(layer: ComparedLayer) -> dict[str, Any]:
    return {
        "index": layer.index,
        "output": layer.output,
        **layer.difference.to_json(),
        "above": layer.above,
    }


def _text(result: dict[str, Any]) -> str:
    lines = [
        f"{layer['index']:4}  {layer['relative']:.1e}  {layer['tensor']}"
        + ("  above the tolerance" if layer["above"] else "")
        for layer in result["layers"]
    ]
    first = result["first_above"]
    verdict = "all layers agree" if first is None else f"diverges at {first['tensor']!r}"
    return "\n".join([*lines, f"{result['model']}: {verdict}"])


if __name__ == "__main__":
    sys.exit(main())
