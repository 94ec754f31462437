"""The model card, and the check that repeats what it says."""

import hashlib
import json

import numpy as np
import pytest
from ravu.convert import Options, Recipe, diff
from ravu.convert.check import DIFFERENT, UNREADABLE, main
from ravu.model_file import Model

from sources import Source


@pytest.fixture
def converted(tmp_path):
    source = Source()
    x = source("GlobalAveragePool", source("Relu", source.conv("image", 3, 4, (3, 3))))
    y = source("Softmax", source("Flatten", x), axis=1)
    recipe = Recipe(range=255.0, mean=(0.5,), fit="crop")
    source.convert(tmp_path, y, options=Options(recipe=recipe, label_offset=1, labels=["a", "b"]))
    return tmp_path / "out.ravu"


def test_the_card_says_where_the_model_comes_from_and_how_to_feed_it(converted):
    card = Model.read(converted).card
    digest = hashlib.sha256((converted.parent / "source.onnx").read_bytes()).hexdigest()
    assert card["source"] == [{"name": "source.onnx", "sha256": digest}]
    assert card["task"] == "classifier" and card["scores"] == "probabilities"
    assert card["label_offset"] == 1
    assert card["input"]["order"] == "rgb" and card["input"]["fit"] == "crop"
    assert card["input"]["folded"]["mean"] == [0.5]
    assert card["verification"]["tensors"] > 2 and card["verification"]["pictures"] == 5
    assert card["verification"]["worst"][0]["relative"] < 1e-4
    assert len(card["check"]["outputs"][0]["samples"]) == 4


def test_a_good_model_passes_its_check(converted, capsys):
    assert main([str(converted)]) == 0
    assert "computes what its card says" in capsys.readouterr().out


def test_a_changed_model_fails_its_check(converted, capsys):
    model = Model.read(converted)
    model.layers[0].kernels = model.layers[0].kernels * np.float32(1.5)
    model.write(converted)
    assert main([str(converted), "--json"]) == DIFFERENT
    assert json.loads(capsys.readouterr().out)["same"] is False


@pytest.mark.parametrize("main", [main, diff.main])
def test_json_has_null_for_numbers_that_json_has_not(converted, capsys, main):
    model = Model.read(converted)
    model.layers[0].bias = model.layers[0].bias * np.float32("nan")
    model.write(converted)
    arguments = [str(converted), str(converted.parent / "source.onnx"), "--json"]
    assert main(arguments) != 0
    layers = json.loads(capsys.readouterr().out, parse_constant=pytest.fail)["layers"]
    assert layers[0]["error"] is None and layers[0]["relative"] is None


def test_a_check_that_finds_no_numbers_says_null(converted, capsys):
    model = Model.read(converted)
    model.layers[0].bias = model.layers[0].bias * np.float32("nan")
    model.write(converted)
    assert main([str(converted), "--json"]) == DIFFERENT
    result = json.loads(capsys.readouterr().out, parse_constant=pytest.fail)
    assert result["same"] is False and result["error"] is None


def test_another_number_of_outputs_fails_the_check(converted):
    model = Model.read(converted)
    model.card["check"]["outputs"] *= 2
    model.write(converted)
    assert main([str(converted)]) == DIFFERENT


BROKEN_CHECKS = [{}, {"outputs": [{}]}, {"outputs": 3}, {"outputs": [{"count": 4, "range": 1}]}]


@pytest.mark.parametrize(
    "card, text",
    [(None, "has no card"), ({}, "no check"), ({"check": 3}, "no whole check")]
    + [({"check": check}, "no whole check") for check in BROKEN_CHECKS],
)
def test_a_model_without_a_whole_card_is_reported(converted, capsys, card, text):
    model = Model.read(converted)
    model.card = card
    model.write(converted)
    assert main([str(converted)]) == UNREADABLE
    error = capsys.readouterr().err
    assert str(converted) in error and text in error


def test_fewer_samples_than_the_output_has_fail_the_check(converted):
    model = Model.read(converted)
    model.card["check"]["outputs"][0]["samples"].pop()
    model.write(converted)
    assert main([str(converted)]) == DIFFERENT


@pytest.mark.parametrize("command", [main, diff.main])
@pytest.mark.parametrize("given", [None, 3, {}, {"folded": {}}, {"folded": {"range": "x"}}])
def test_a_card_that_does_not_say_what_was_folded_is_reported(converted, capsys, command, given):
    model = Model.read(converted)
    model.card["input"] = given
    model.write(converted)
    assert command([str(converted), str(converted.parent / "source.onnx")]) == 1
    assert "does not say what was folded" in capsys.readouterr().err


@pytest.mark.parametrize("command", [main, diff.main])
def test_the_source_of_another_model_is_reported(converted, tmp_path, capsys, command):
    cases = [(12, 4, "GlobalAveragePool", "takes images"), (9, 5, "GlobalAveragePool", "values")]
    for size, outputs, last, text in [*cases, (9, 4, "LeakyRelu", "in common")]:
        other = Source(size=size)
        x = other(last, other("Relu", other.conv("image", 3, outputs, (3, 3))))
        path = other.save(tmp_path, x)
        assert command([str(converted), str(path)]) == 1
        assert text in capsys.readouterr().err


def test_all_layers_are_compared_with_the_source(converted, capsys):
    source = str(converted.parent / "source.onnx")
    assert main([str(converted), source]) == 0
    assert "all layers agree" in capsys.readouterr().out


def test_the_first_layer_that_diverges_is_named(converted, capsys):
    model = Model.read(converted)
    wrong = model.layers[0]
    wrong.bias = wrong.bias + np.float32(0.5)
    model.write(converted)
    assert main([str(converted), str(converted.parent / "source.onnx"), "--json"]) == DIFFERENT
    result = json.loads(capsys.readouterr().out)
    tensors = [layer["tensor"] for layer in result["layers"]]
    assert result["first"] == tensors[0] and "relu" in tensors[0] and len(tensors) > 2


def test_a_source_that_cannot_be_read_is_reported(converted, capsys):
    assert main([str(converted), str(converted)]) == UNREADABLE
    assert "no ONNX model" in capsys.readouterr().err


def test_another_run_mode_can_be_checked(converted, capsys):
    assert main([str(converted), "--mode", "0"]) == 0
    with pytest.raises(SystemExit):
        main([str(converted), "--mode", "1"])
