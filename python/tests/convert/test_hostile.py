"""Damaged and hostile files end in a clear error and leave nothing behind."""

import os

import numpy as np
import onnx
import pytest
from onnx import TensorProto
from ravu.convert import ConversionRefused, SourceError, VerificationFailed, convert

from sources import PLAIN, Source

EXPECTED = (SourceError, ConversionRefused, VerificationFailed)


def small_source():
    source = Source(size=6)
    x = source("Relu", source.conv("image", 3, 4, (3, 3), pads=[1, 1, 1, 1]))
    x = source(
        "Reshape", source("MaxPool", x, kernel_shape=[2, 2], strides=[2, 2]), source.ints(1, -1)
    )
    return source, source("Gemm", x, source.weights(36, 5), source.weights(5))


def attempt(path, data):
    """Convert damaged bytes: an expected error, or a model that was verified."""
    path.write_bytes(data)
    try:
        convert(path, options=PLAIN)
    except EXPECTED:
        pass
    left = {p.name for p in path.parent.iterdir()} - {path.name, "out.ravu", "damaged.ravu"}
    assert not left


@pytest.fixture
def data(tmp_path):
    source, y = small_source()
    return source.save(tmp_path, y).read_bytes()


def test_every_shorter_file_is_reported(tmp_path, data):
    folder = tmp_path / "damaged"
    folder.mkdir()
    for length in range(0, len(data), 37):
        attempt(folder / "damaged.onnx", data[:length])


def test_changed_bytes_never_crash(tmp_path, data):
    rng = np.random.default_rng(11)
    folder = tmp_path / "damaged"
    folder.mkdir()
    for _ in range(300):
        changed = bytearray(data)
        for position in rng.integers(0, len(data), rng.integers(1, 6)):
            changed[position] = rng.integers(256)
        attempt(folder / "damaged.onnx", bytes(changed))


def external(tmp_path, location, **entries):
    """A model whose first weights are said to stand in another file."""
    source, y = small_source()
    model = source.model(y)
    tensor = model.graph.initializer[0]
    values = tensor.raw_data
    tensor.ClearField("raw_data")
    tensor.data_location = TensorProto.EXTERNAL
    for key, value in {"location": location, **entries}.items():
        tensor.external_data.add(key=key, value=str(value))
    folder = tmp_path / "model"
    folder.mkdir()
    (folder / "source.onnx").write_bytes(model.SerializeToString())
    return folder / "source.onnx", values


def test_external_data_is_read_from_the_models_folder(tmp_path):
    path, values = external(tmp_path, "weights.bin", offset=4)
    (path.parent / "weights.bin").write_bytes(b"1234" + values)
    assert convert(path, options=PLAIN).differences


@pytest.mark.parametrize("location", ["../weights.bin", "{absolute}", "link.bin", "", "."])
def test_external_data_elsewhere_is_refused(tmp_path, location):
    location = location.format(absolute=tmp_path / "weights.bin")
    path, values = external(tmp_path, location)
    (tmp_path / "weights.bin").write_bytes(values)
    os.symlink(tmp_path / "weights.bin", path.parent / "link.bin")
    with pytest.raises(SourceError):
        convert(path, options=PLAIN)


@pytest.mark.parametrize(
    "entries", [{"offset": 5}, {"length": 1 << 40}, {"offset": -1}, {"offset": "x"}]
)
def test_external_data_that_is_too_short_is_refused(tmp_path, entries):
    path, values = external(tmp_path, "weights.bin", **entries)
    (path.parent / "weights.bin").write_bytes(values)
    with pytest.raises(SourceError):
        convert(path, options=PLAIN)


def test_constants_that_would_fill_the_memory_are_not_computed(tmp_path):
    source = Source(size=6)
    huge = source("ConstantOfShape", source.ints(1 << 20, 1 << 20))
    y = source("Add", source.conv("image", 3, 4), huge)
    path = source.save(tmp_path, y)
    with pytest.raises(EXPECTED):
        convert(path, options=PLAIN)


def test_an_input_of_a_hopeless_size_is_refused(tmp_path):
    source = Source(size=1 << 20)
    with pytest.raises(EXPECTED):
        source.convert(tmp_path, source.conv("image", 3, 4))


def test_two_inputs_are_refused(tmp_path):
    source = Source()
    model = source.model(source.conv("image", 3, 4))
    model.graph.input.append(onnx.helper.make_tensor_value_info("b", TensorProto.FLOAT, [1]))
    path = tmp_path / "source.onnx"
    path.write_bytes(model.SerializeToString())
    with pytest.raises(SourceError, match="2 inputs"):
        convert(path, options=PLAIN)
