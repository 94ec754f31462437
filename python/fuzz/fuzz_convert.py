"""Fuzzes the converter with atheris (`pip install atheris`), from small models as seeds:

    PYTHONPATH=build/dev/python:python/tests/convert \\
      build/venv/bin/python3 python/fuzz/fuzz_convert.py -max_total_time=600

The first byte chooses the format. Whatever stands in a file, reading and mapping it end in one of
the converter's own exceptions or in a model; and nothing takes longer than a few seconds. What is
found stays in the current folder (libFuzzer's crash-*, slow-unit-*).
"""

import sys
import tempfile
from pathlib import Path

import atheris

with atheris.instrument_imports(include=["ravu", "google.protobuf"]):
    from ravu.convert import ConversionRefused, SourceError
    from ravu.convert.caffe import load_caffe, read_caffe
    from ravu.convert.converter import convert_graph
    from ravu.convert.onnx_source import read_onnx
    from ravu.convert.recipe import Recipe

import test_caffe
from test_hostile import small_source

FOLDER = Path(tempfile.mkdtemp())
RECIPE = Recipe(range=255.0).resolved(1)
ONNX, WEIGHTS, TEXT = range(3)
DETECTOR_TEXT, DETECTOR_BLOBS = test_caffe.detector(6)
PROTOTXT, CAFFEMODEL = test_caffe.write(FOLDER, DETECTOR_TEXT, DETECTOR_BLOBS)
GOOD_WEIGHTS = CAFFEMODEL.read_bytes()


def read(kind: int, data: bytes):
    """The graph of damaged bytes, in a network whose other file is whole."""
    if kind == ONNX:
        (FOLDER / "source.onnx").write_bytes(data)
        return read_onnx(FOLDER / "source.onnx")
    PROTOTXT.write_bytes(data if kind == TEXT else DETECTOR_TEXT.encode())
    CAFFEMODEL.write_bytes(data if kind == WEIGHTS else GOOD_WEIGHTS)
    return read_caffe(load_caffe(PROTOTXT, CAFFEMODEL))


def one_input(data: bytes) -> None:
    if not data:
        return
    try:
        convert_graph(read(data[0] % 3, data[1:]), RECIPE)
    except (SourceError, ConversionRefused):
        pass


def write_seeds(folder: Path) -> None:
    """One file for each format."""
    folder.mkdir(exist_ok=True)
    source, output = small_source()
    seeds = [source.model(output).SerializeToString(), GOOD_WEIGHTS, DETECTOR_TEXT.encode()]
    for kind, data in enumerate(seeds):
        (folder / f"seed{kind}").write_bytes(bytes([kind]) + data)


def main() -> None:
    write_seeds(FOLDER / "seeds")
    arguments = [
        sys.argv[0],
        str(FOLDER / "corpus"),
        str(FOLDER / "seeds"),
        "-max_len=16384",
        "-timeout=10",
        *sys.argv[1:],
    ]
    (FOLDER / "corpus").mkdir()
    atheris.Setup(arguments, one_input)
    atheris.Fuzz()


if __name__ == "__main__":
    main()
