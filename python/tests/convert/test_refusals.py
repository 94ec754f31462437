"""What cannot be expressed: everything at once, with a reason, and no file."""

import json

import numpy as np
import onnx
import pytest
from ravu.convert import ConversionRefused, VerificationFailed, convert
from ravu.convert.__main__ import DIFFERENT, REFUSED, UNREADABLE, main
from ravu.convert.builder import Builder

from sources import PLAIN, Source


def three_obstacles():
    source = Source()
    x = source.conv("image", 3, 4, (3, 3), strides=[1, 2])
    x = source("Sigmoid", x)
    x = source("MaxPool", source.conv(x, 4, 4), kernel_shape=[2, 3])
    return source, source("Relu", x)


def refusals_of(source, tmp_path, *outputs):
    with pytest.raises(ConversionRefused) as caught:
        source.convert(tmp_path, *outputs)
    assert not (tmp_path / "out.ravu").exists()
    return caught.value.refusals


def test_all_refusals_are_listed_at_once_and_nothing_is_written(tmp_path):
    source, y = three_obstacles()
    refusals = refusals_of(source, tmp_path, y)
    assert [(r.operator, r.attribute) for r in refusals] == [
        ("Conv", "strides"),
        ("Sigmoid", ""),
        ("MaxPool", "kernel_shape"),
    ]
    assert all(r.reason and r.advice for r in refusals)
    assert [r.node for r in refusals] == ["Conv0", "Sigmoid1", "MaxPool3"]


def test_the_command_lists_refusals_and_says_so_in_its_status(tmp_path, capsys):
    source, y = three_obstacles()
    path = source.save(tmp_path, y)
    assert main([str(path)]) == REFUSED
    text = capsys.readouterr().err
    assert "for 3 reasons" in text and "Sigmoid 'Sigmoid1': has no counterpart (train" in text
    assert main([str(path), "--json"]) == REFUSED
    listed = json.loads(capsys.readouterr().out)["refusals"]
    assert len(listed) == 3 and set(listed[0]) == {
        "node",
        "operator",
        "attribute",
        "reason",
        "advice",
    }
    assert sorted(p.name for p in tmp_path.iterdir()) == ["source.onnx"]


def graph_of(op, *constants, **attributes):
    source = Source()
    x = source.conv("image", 3, 4)
    return source, source(op, x, *(source.constant(c) for c in constants), **attributes)


@pytest.mark.parametrize(
    "op, constants, attributes, reason",
    [
        ("LRN", [], {"size": 4}, "channel in the middle"),
        ("LpNormalization", [], {"axis": 1, "p": 1}, "only the square norm"),
        ("Transpose", [], {"perm": [0, 2, 1, 3]}, "channels first and channels last"),
        ("Concat", [np.zeros((1, 4, 9, 9))], {"axis": 1}, "is a constant"),
        ("Softmax", [], {"axis": 2}, "softmax over"),
        ("MaxPool", [], {"kernel_shape": [3, 3], "pads": [0, 0, 2, 2]}, "may be negative"),
        ("MaxPool", [], {"kernel_shape": [2, 2], "dilations": [2, 2]}, "no gaps"),
        ("AveragePool", [], {"kernel_shape": [2, 2], "strides": [1, 2]}, "one stride"),
        ("Div", [np.zeros(1)], {}, "is zero"),
        ("Cast", [], {"to": 7}, "floating-point"),
        ("ReduceMean", [], {"axes": [1]}, "whole images"),
        ("Tanh", [], {}, "has no counterpart"),
    ],
)
def test_what_cannot_be_expressed_is_refused(tmp_path, op, constants, attributes, reason):
    source, y = graph_of(op, *constants, **attributes)
    assert reason in str(refusals_of(source, tmp_path, y)[0])


def test_products_of_computed_tensors_are_refused(tmp_path):
    source = Source()
    y = source("Mul", source.conv("image", 3, 4), source.conv("image", 3, 4))
    assert "two computed tensors" in refusals_of(source, tmp_path, y)[0].reason


def test_computed_weights_are_refused(tmp_path):
    source = Source(channels=3, size=3)
    weights = source("Relu", source.conv("image", 3, 3))
    y = source("Conv", "image", weights)
    assert refusals_of(source, tmp_path, y)[0].attribute == "W"


def test_images_that_are_not_square_are_refused(tmp_path):
    source = Source()
    source.shape = [1, 3, 8, 6]
    assert refusals_of(source, tmp_path, source.conv("image", 3, 4))[0].reason == "is 8 x 6"


def test_a_wrong_result_is_not_written(tmp_path, monkeypatch, capsys):
    source = Source()
    path = source.save(tmp_path, source("Relu", source.conv("image", 3, 4)))
    monkeypatch.setattr(Builder, "rectified", lambda self, value, *rest: value)
    with pytest.raises(VerificationFailed, match="1 tensors differ"):
        convert(path, options=PLAIN)
    assert main([str(path), "--json"]) == DIFFERENT
    assert json.loads(capsys.readouterr().out)["differences"][0]["relative"] > 1e-4
    assert not path.with_suffix(".ravu").exists()


def test_the_command_reports_what_it_cannot_read(tmp_path, capsys):
    assert main([str(tmp_path / "missing.onnx")]) == UNREADABLE
    assert "missing.onnx" in capsys.readouterr().err


def test_a_source_is_never_replaced(tmp_path, capsys):
    source = Source()
    path = source.save(tmp_path, source.conv("image", 3, 4))
    before = path.read_bytes()
    assert main([str(path), "-o", str(path)]) == UNREADABLE
    assert path.read_bytes() == before and "replace" in capsys.readouterr().err


def test_an_unknown_operator_does_not_hide_what_follows(tmp_path):
    source = Source()
    y = source("Tanh", source("Sigmoid", source.conv("image", 3, 4)))
    path = source.save(tmp_path, y)
    model = onnx.load_model(str(path))
    model.graph.node[1].domain = "elsewhere"
    model.opset_import.append(onnx.helper.make_opsetid("elsewhere", 1))
    onnx.save_model(model, str(path))
    with pytest.raises(ConversionRefused) as caught:
        convert(path, options=PLAIN)
    assert [r.operator for r in caught.value.refusals][0] == "elsewhere.Sigmoid"
