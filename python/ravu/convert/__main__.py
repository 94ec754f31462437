"""The command line of the converter: `python -m ravu.convert`, or `ravu convert`.

Exit status: 0 done, 1 the source cannot be read, 2 misused, 3 refused, 4 the result differs.
"""

from __future__ import annotations

import argparse
import sys
from collections.abc import Sequence
from pathlib import Path

from ..model_file import ModelFileError
from ..outline import MOST_LABEL_OFFSET
from . import (
    ConversionRefused,
    Options,
    Recipe,
    Report,
    SourceError,
    VerificationFailed,
    convert,
)
from .json_text import json_text
from .recipe import IMAGENET_DEVIATION, IMAGENET_MEAN

UNREADABLE, REFUSED, DIFFERENT = 1, 3, 4
WORST_PRINTED = 5
SQUASH = "squash"


def main(arguments: Sequence[str] | None = None) -> int:
    """Convert one file and print what was done. Returns the exit status."""
    parser = _parser()
    options = parser.parse_args(arguments)
    if options.no_verify and (options.label_offset or options.fit != SQUASH):
        parser.error("--label-offset and --fit are kept in the card, which --no-verify leaves out")
    try:
        if options.labels and options.output and _same_file(options.labels, options.output):
            raise SourceError(f"{options.output}: the result would replace the labels")
        report = convert(options.source, options.output, _options(options))
    except ConversionRefused as refused:
        return _refused(refused, options.source, options.json)
    except VerificationFailed as failed:
        return _different(failed, options.source, options.json)
    except (SourceError, ModelFileError, OSError) as error:
        print(f"ravu convert: {error}", file=sys.stderr)
        return UNREADABLE
    _print(report, options.json)
    return 0


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="ravu convert",
        description="Convert an ONNX or Caffe model, and prove that the result computes the same.",
        epilog="The source is assumed to take (byte / range - mean) / deviation, by default what "
        "classifiers of photographs are usually trained with: mean "
        f"{_list(IMAGENET_MEAN)} and deviation {_list(IMAGENET_DEVIATION)}"
        " for three channels, 0 and 1 for one. Caffe models take bytes less the mean, blue, green, "
        "red. The result takes plain bytes, red, green, blue.",
    )
    parser.add_argument("source", type=Path, metavar="SRC", help="an ONNX file, or a prototxt")
    parser.add_argument(
        "weights", type=Path, metavar="CAFFEMODEL", nargs="?", help="the weights of a prototxt"
    )
    parser.add_argument(
        "-o",
        "--output",
        type=Path,
        metavar="OUT",
        help="the model file (default: SRC with the ending .ravu)",
    )
    pixels = parser.add_argument_group("what the source expects of its pixels")
    pixels.add_argument("--range", type=float, help="what white is: 255 means 0 to 1, 1 bytes")
    pixels.add_argument("--mean", type=_numbers, metavar="M,M,M")
    pixels.add_argument("--deviation", type=_numbers, metavar="D,D,D")
    pixels.add_argument(
        "--mean-file", type=Path, metavar="FILE", help="a binaryproto; its mean of each channel"
    )
    pixels.add_argument(
        "--bgr",
        action=argparse.BooleanOptionalAction,
        default=None,
        help="its channels are blue, green, red (Caffe's usually are)",
    )
    pixels.add_argument(
        "--fit",
        choices=(SQUASH, "crop", "letterbox"),
        default=SQUASH,
        help="how pictures come to the network's size (default: squash)",
    )
    parser.add_argument("--labels", type=Path, metavar="FILE", help="names of the classes, by line")
    parser.add_argument(
        "--label-offset",
        type=_offset,
        default=0,
        metavar="N",
        help="the score that the first label belongs to (default: 0)",
    )
    parser.add_argument(
        "--ssd",
        type=Path,
        metavar="JSON",
        help="the source is a detector: cut it at the heads that this file describes",
    )
    parser.add_argument("--softmax", action="store_true", help="append a softmax to the outputs")
    parser.add_argument(
        "--no-verify",
        action="store_true",
        help="do not compare with the source; the file gets no card then",
    )
    parser.add_argument("--json", action="store_true", help="print one JSON value instead of text")
    return parser


def _offset(text: str) -> int:
    if not text.isdecimal() or int(text) > MOST_LABEL_OFFSET:
        expected = f"a whole number from 0 to {MOST_LABEL_OFFSET}"
        raise argparse.ArgumentTypeError(f"{expected} is expected")
    return int(text)


def _numbers(text: str) -> tuple[float, ...]:
    try:
        return tuple(float(part) for part in text.split(","))
    except ValueError:
        raise argparse.ArgumentTypeError("numbers separated by commas are expected") from None


def _options(given: argparse.Namespace) -> Options:
    recipe = Recipe(given.range, given.mean, given.deviation, given.bgr, given.fit)
    return Options(
        recipe=recipe,
        labels=_read_labels(given.labels) if given.labels else [],
        label_offset=given.label_offset,
        weights=given.weights,
        mean_file=given.mean_file,
        ssd=given.ssd,
        softmax=given.softmax,
        verify=not given.no_verify,
    )


def _same_file(first: Path, second: Path) -> bool:
    return first.resolve() == second.resolve()


def _read_labels(path: Path) -> list[str]:
    """One name a line. Other characters that Unicode breaks lines at belong to the names."""
    try:
        text = path.read_text(encoding="utf-8")
    except UnicodeDecodeError as error:
        raise SourceError(f"{path}: is no UTF-8 text: {error.reason}") from error
    return text.removesuffix("\n").split("\n") if text else []


def _print(report: Report, as_json: bool) -> None:
    if as_json:
        print(json_text(report.to_json()))
        return
    recipe = report.recipe
    order = "blue, green, red" if recipe.bgr else "red, green, blue"
    print(f"{report.path}: {report.layers} layers")
    print(
        f"source's pixels: (byte / {recipe.range:g} - {_list(recipe.mean)}) / "
        f"{_list(recipe.deviation)}, {order}"
    )
    for name, blob in report.outputs.items():
        print(f"output {name}: tensor {blob}")
    if not report.differences:
        print("not verified")
        return
    print(f"verified: {len(report.differences)} tensors; the worst, in parts of their range:")
    for difference in report.differences[:WORST_PRINTED]:
        print(f"  {difference.relative:.1e}  {difference.tensor}")


def _list(values: Sequence[float]) -> str:
    return "[" + ", ".join(f"{value:g}" for value in values) + "]"


def _refused(refused: ConversionRefused, source: Path, as_json: bool) -> int:
    if as_json:
        print(json_text({"refusals": [r.to_json() for r in refused.refusals]}))
    else:
        count = len(refused.refusals)
        reasons = "1 reason" if count == 1 else f"{count} reasons"
        print(f"ravu convert: {source} cannot be expressed, for {reasons}:", file=sys.stderr)
        for refusal in refused.refusals:
            print(f"  {refusal}", file=sys.stderr)
    return REFUSED


def _different(failed: VerificationFailed, source: Path, as_json: bool) -> int:
    if as_json:
        print(json_text({"differences": [d.to_json() for d in failed.differences]}))
    else:
        print(f"ravu convert: {source}: {failed}; nothing was written", file=sys.stderr)
        for difference in failed.differences[:WORST_PRINTED]:
            print(f"  {difference.relative:.1e}  {difference.tensor}", file=sys.stderr)
    return DIFFERENT


if __name__ == "__main__":
    sys.exit(main())
