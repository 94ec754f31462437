"""`ravu diff` of a converted model and its source."""

import json

import numpy as np
import pytest
import ravu.__main__ as command
from PIL import Image
from ravu.convert import Options, Recipe
from ravu.convert.diff import main
from ravu.model_file import Model

from sources import Source


@pytest.fixture
def converted(tmp_path):
    source = Source()
    x = source("Relu", source.conv("image", 3, 4, (3, 3)))
    x = source("Relu", source.conv(x, 4, 4, (1, 1)))
    x = source("GlobalAveragePool", x)
    y = source("Softmax", source("Flatten", x), axis=1)
    recipe = Recipe(range=255.0, mean=(0.5,), fit="crop")
    source.convert(tmp_path, y, options=Options(recipe=recipe))
    return tmp_path / "out.ravu"


def diff(capsys, *arguments):
    status = main([*map(str, arguments), "--json"])
    return status, json.loads(capsys.readouterr().out)


def alter_second_convolution(path):
    model = Model.read(path)
    second = [layer for layer in model.layers if hasattr(layer, "kernels")][1]
    second.kernels = second.kernels * np.float32(1.01)
    model.write(path)
    return second.outputs[-1]


def test_a_conversion_agrees_with_its_source(converted, capsys):
    status, result = diff(capsys, converted, converted.parent / "source.onnx")
    assert status == 0 and result["same"] and result["first_above"] is None
    indices = [layer["index"] for layer in result["layers"]]
    assert indices == sorted(indices) and len(indices) > 3
    assert all(layer["range"] > 0 for layer in result["layers"][:2])


def test_the_layer_whose_weights_were_altered_comes_first(converted, capsys):
    output = alter_second_convolution(converted)
    status, result = diff(capsys, converted, converted.parent / "source.onnx")
    assert status == 1 and not result["same"]
    assert result["first_above"]["output"] == output
    above = [layer["above"] for layer in result["layers"]]
    assert not above[0] and above.index(True) > 0


def test_the_tolerance_decides(converted, capsys):
    alter_second_convolution(converted)
    source = converted.parent / "source.onnx"
    assert diff(capsys, converted, source, "--tolerance", "10")[0] == 0
    assert diff(capsys, converted, source, "--tolerance", "0")[0] == 1


@pytest.mark.parametrize("fit", ["squash", "crop", "letterbox"])
def test_a_picture_takes_the_place_of_the_drawn_ones(converted, capsys, fit):
    model = Model.read(converted)
    model.card["input"]["fit"] = fit
    model.write(converted)
    photo = converted.parent / "photo.png"
    Image.fromarray(np.full((20, 30, 3), (255, 0, 0), np.uint8)).save(photo)
    source = converted.parent / "source.onnx"
    status, result = diff(capsys, converted, source, photo)
    assert status == 0 and result["image"] == str(photo)
    drawn = diff(capsys, converted, source)[1]
    assert drawn["image"] is None
    assert result["layers"][0]["range"] != drawn["layers"][0]["range"]


def test_text_ends_with_the_verdict(converted, capsys):
    source = str(converted.parent / "source.onnx")
    assert main([str(converted), source]) == 0
    assert capsys.readouterr().out.endswith("all layers agree\n")
    alter_second_convolution(converted)
    assert main([str(converted), source]) == 1
    out = capsys.readouterr().out
    assert "above the tolerance" in out and "diverges at" in out.splitlines()[-1]


def test_what_cannot_be_read_is_one_line(converted, capsys):
    source = converted.parent / "source.onnx"
    no_picture = converted.parent / "no.png"
    no_picture.write_text("no picture")
    model = Model.read(converted)
    model.card = None
    bare = converted.parent / "bare.ravu"
    model.write(bare)
    for arguments in ([converted, converted], [converted, source, no_picture], [bare, source]):
        assert main([*map(str, arguments)]) == 1
        captured = capsys.readouterr()
        assert captured.out == "" and captured.err.startswith("ravu diff: ")
        assert captured.err.count("\n") == 1


def test_a_picture_too_large_for_pillow_is_named(converted, capsys, monkeypatch):
    monkeypatch.setattr(Image, "MAX_IMAGE_PIXELS", 8)
    photo = converted.parent / "photo.png"
    Image.fromarray(np.zeros((20, 30, 3), np.uint8)).save(photo)
    assert main([str(converted), str(converted.parent / "source.onnx"), str(photo)]) == 1
    error = capsys.readouterr().err
    assert str(photo) in error and "exceeds limit" in error and error.count("\n") == 1


def test_weights_and_pictures_have_their_places(converted):
    source = str(converted.parent / "source.onnx")
    misuses = [[source, "a.png", "b.png"], ["net.prototxt"], ["net.prototxt", "w", "a", "b"]]
    for more in misuses:
        with pytest.raises(SystemExit) as ended:
            main([str(converted), *more])
        assert ended.value.code == 2


def test_the_command_takes_this_form_to_python_and_no_other(converted, monkeypatch, capsys):
    source = str(converted.parent / "source.onnx")
    monkeypatch.setattr("sys.argv", ["ravu", "diff", str(converted), source])
    assert command.main() == 0
    assert "all layers agree" in capsys.readouterr().out
    assert not command._is_python(["diff", "a.ravu", "b.ravu"])
    assert not command._is_python(["inspect", "a.onnx"])
