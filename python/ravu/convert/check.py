"""The command `ravu verify`: does a converted model still compute what it should?

Without a source, the check of its card is repeated. With one, every layer is compared with the
source's, and the first that diverges is named. Exit status: 0 it computes the same, 1 something
cannot be read, 2 misused, 4 it does not.
"""

from __future__ import annotations

import argparse
import sys
from collections.abc import Sequence
from pathlib import Path
from typing import Any

from ..model_file import ModelFileError
from ..network import EngineError, Mode
from ..outline import read_outline
from .card import repeat_check
from .comparing import compare_layers
from .graph import ConversionRefused, SourceError
from .json_text import json_text
from .loading import card_of_conversion, load_for
from .verify import TOLERANCE_WITH_NORMALISATION

UNREADABLE, DIFFERENT = 1, 4
_PROBLEMS = (ModelFileError, EngineError, SourceError, ConversionRefused, OSError)


def main(arguments: Sequence[str] | None = None) -> int:
    """Check one model and print the result. Returns the exit status."""
    options = _parser().parse_args(arguments)
    try:
        check = _against_card if options.source is None else _against_source
        result = check(options)
    except _PROBLEMS as problem:
        print(f"ravu verify: {options.model}: {problem}", file=sys.stderr)
        return UNREADABLE
    print(json_text(result) if options.json else _text(result))
    return 0 if result["same"] else DIFFERENT


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="ravu verify",
        description="Repeat the check of a converted model, or compare all its layers with its "
        "source.",
    )
    parser.add_argument("model", type=Path, metavar="MODEL", help="a model that ravu convert wrote")
    parser.add_argument("source", type=Path, metavar="SRC", nargs="?", help="its ONNX or prototxt")
    parser.add_argument("weights", type=Path, metavar="CAFFEMODEL", nargs="?")
    parser.add_argument("--ssd", type=Path, metavar="JSON", help="the heads of a detector in ONNX")
    parser.add_argument(
        "--mode", type=int, choices=[int(m) for m in Mode], default=0, help="run mode"
    )
    parser.add_argument("--json", action="store_true", help="print one JSON value instead of text")
    return parser


def _against_card(options: argparse.Namespace) -> dict[str, Any]:
    card = card_of_conversion(read_outline(options.model))
    if "check" not in card:
        raise ModelFileError("its card has no check")
    error = repeat_check(options.model, card["check"], Mode(options.mode))
    same = error <= TOLERANCE_WITH_NORMALISATION
    return {"model": str(options.model), "same": same, "error": error}


def _against_source(options: argparse.Namespace) -> dict[str, Any]:
    """The differences in the order of the layers, and the first that is too large."""
    loaded = load_for(options.model, options.source, options.weights, options.ssd)
    layers = compare_layers(loaded, options.model, Mode(options.mode))
    first = next((layer.difference.tensor for layer in layers if layer.above), None)
    return {
        "model": str(options.model),
        "same": first is None,
        "first": first,
        "layers": [layer.difference.to_json() for layer in layers],
    }


def _text(result: dict[str, Any]) -> str:
    if "layers" not in result:
        does = "computes" if result["same"] else "does not compute"
        error = f"worst {result['error']:.1e} of an output's range"
        return f"{result['model']}: {does} what its card says; {error}"
    lines = [f"{layer['relative']:.1e}  {layer['tensor']}" for layer in result["layers"]]
    verdict = "all layers agree" if result["same"] else f"diverges at {result['first']!r}"
    return "\n".join([*lines, f"{result['model']}: {verdict}"])


if __name__ == "__main__":
    sys.exit(main())
