"""The C++ program and the Python package together. Needs RAVU_PROGRAM, which ctest sets."""

import json
import os
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest
import ravu
from PIL import Image

from sources import Source

PROGRAM = os.environ.get("RAVU_PROGRAM")
pytestmark = pytest.mark.skipif(not PROGRAM, reason="RAVU_PROGRAM is not set")


def run(*arguments, packages=True, **options):
    paths = [str(Path(ravu.__file__).parents[1])] if packages else []
    path = os.pathsep.join([str(Path(sys.executable).parent), "/usr/bin", "/bin"])
    environment = {"PATH": path, "PYTHONPATH": os.pathsep.join(paths)}
    return subprocess.run(
        [PROGRAM, *map(str, arguments)], env=environment, capture_output=True, text=True, **options
    )


@pytest.fixture
def source(tmp_path):
    model = Source(size=16)
    x = model("Relu", model.conv("image", 3, 8, (3, 3), pads=[1, 1, 1, 1]))
    x = model("MaxPool", x, kernel_shape=[3, 3], strides=[2, 2], pads=[1, 1, 1, 1])
    x = model("Flatten", model("GlobalAveragePool", x))
    y = model("Softmax", model("Gemm", x, model.weights(8, 3), model.weights(3)), axis=1)
    return model.save(tmp_path, y)


def test_convert_classify_inspect_and_verify_work_in_a_row(source, tmp_path):
    (tmp_path / "labels.txt").write_text("cat\ndog\nbird\n")
    converted = run("convert", source, "--labels", tmp_path / "labels.txt", "--fit", "crop")
    assert converted.returncode == 0, converted.stderr
    model = source.with_suffix(".ravu")
    pixels = np.random.default_rng(0).integers(0, 256, (16, 16, 3), np.uint8)
    Image.fromarray(pixels).save(tmp_path / "photo.png")
    classified = run("classify", model, tmp_path / "photo.png", "--json")
    predictions = json.loads(classified.stdout)[0]["predictions"]
    with ravu.Network(model) as network:
        (scores,) = network.run(pixels)
    for prediction in predictions:
        assert prediction["label"] == ["cat", "dog", "bird"][prediction["index"]]
        np.testing.assert_allclose(prediction["score"], scores.ravel()[prediction["index"]], 1e-5)
    assert "verified" in run("inspect", model).stdout
    assert run("verify", model).returncode == 0


def test_program_and_package_name_the_same_class(source, tmp_path):
    (tmp_path / "labels.txt").write_text("cat\ndog\n")
    converted = run("convert", source, "--labels", tmp_path / "labels.txt", "--label-offset", "1")
    assert converted.returncode == 0, converted.stderr
    model = source.with_suffix(".ravu")
    Image.fromarray(np.zeros((16, 16, 3), np.uint8)).save(tmp_path / "photo.png")
    classified = run("classify", model, tmp_path / "photo.png", "--json")
    predictions = json.loads(classified.stdout)[0]["predictions"]
    with ravu.Network(model) as network:
        labels = network.labels
    assert labels == ["", "cat", "dog"]
    for prediction in predictions:
        index = prediction["index"]
        assert prediction["label"] == (labels[index] or str(index))


@pytest.mark.parametrize("offset", ["-3", "1.5", "1000001", "x"])
def test_a_label_offset_that_no_program_obeys_is_refused(source, offset):
    outcome = run("convert", source, f"--label-offset={offset}")
    assert outcome.returncode == 2
    assert "whole number from 0" in outcome.stderr
    assert not source.with_suffix(".ravu").exists()


def test_diff_with_a_source_is_done_in_python(source):
    assert run("convert", source).returncode == 0
    model = source.with_suffix(".ravu")
    compared = run("diff", model, source, "--json")
    assert compared.returncode == 0, compared.stderr
    assert json.loads(compared.stdout)["same"] is True
    assert run("diff", model, source, "--tolerance", "0").returncode == 1
    assert run("diff", model, model).returncode == 0


def test_a_refusal_keeps_its_exit_status(tmp_path):
    model = Source()
    path = model.save(tmp_path, model("Sigmoid", model.conv("image", 3, 4)))
    assert run("convert", path).returncode == 3


def test_arguments_reach_the_converter(source):
    shown = run("convert", "--help")
    assert shown.returncode == 0 and "CAFFEMODEL" in shown.stdout
    assert run("convert").returncode == 2


def test_a_missing_package_is_explained(source, tmp_path):
    outcome = run("convert", source, packages=False, cwd=tmp_path)
    assert outcome.returncode == 1
    assert "pip install 'ravu[convert]'" in outcome.stderr
