"""The C++ program and the Python package together. Needs RAVU_PROGRAM, which ctest sets."""

import json
import os
import signal
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest
import ravu
from PIL import Image
from ravu.convert import convert

from sources import Source

PROGRAM = os.environ.get("RAVU_PROGRAM")
pytestmark = pytest.mark.skipif(not PROGRAM, reason="RAVU_PROGRAM is not set")


def run(*arguments, packages=True, before=None, **options):
    """before: a folder that Python looks for packages in before it looks anywhere else"""
    paths = [str(before)] if before else []
    if packages:
        paths.append(str(Path(ravu.__file__).parents[1]))
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


def test_pixels_that_are_no_numbers_are_refused(source):
    misused = run("convert", source, "--mean", "x")
    assert misused.returncode == 2 and "numbers separated by commas" in misused.stderr
    outcome = run("convert", source, "--range", "nan", "--no-verify")
    assert outcome.returncode == 1 and "finite numbers" in outcome.stderr
    assert not source.with_suffix(".ravu").exists()


def test_labels_are_not_replaced_by_the_result(source, tmp_path):
    labels = tmp_path / "labels.txt"
    labels.write_text("cat\ndog\nbird\n")
    outcome = run("convert", source, "--labels", labels, "-o", tmp_path / "." / "labels.txt")
    assert outcome.returncode == 1 and "would replace the labels" in outcome.stderr
    assert labels.read_text() == "cat\ndog\nbird\n"


@pytest.mark.parametrize("option", [["--label-offset", "1"], ["--fit", "crop"]])
def test_what_only_the_card_keeps_needs_one(source, option):
    outcome = run("convert", source, "--no-verify", *option)
    assert outcome.returncode == 2 and "kept in the card" in outcome.stderr
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
    refused = run("convert", path)
    assert refused.returncode == 3
    assert "for 1 reason:" in refused.stderr


def test_arguments_reach_the_converter(source):
    shown = run("convert", "--help")
    assert shown.returncode == 0 and "CAFFEMODEL" in shown.stdout
    assert run("convert").returncode == 2


@pytest.mark.parametrize("labels", [b"caf\xe9\n", b"a\0b\n"])
def test_labels_that_are_no_text_end_in_one_line(source, tmp_path, labels):
    (tmp_path / "labels.txt").write_bytes(labels)
    outcome = run("convert", source, "--labels", tmp_path / "labels.txt")
    assert outcome.returncode == 1
    assert outcome.stderr.startswith("ravu convert: ") and outcome.stderr.count("\n") == 1


def test_a_label_is_a_line_and_not_less(source, tmp_path):
    (tmp_path / "labels.txt").write_bytes("a\u2028b\r\nc\x0cd\n\n".encode())
    outcome = run("convert", source, "--labels", tmp_path / "labels.txt", "--no-verify")
    assert outcome.returncode == 0, outcome.stderr
    with ravu.Network(source.with_suffix(".ravu")) as network:
        assert network.labels == ["a\u2028b", "c\x0cd", ""]


@pytest.mark.parametrize(
    "command, name",
    [("convert", "onnx"), *((c, "onnxruntime") for c in ("convert", "verify", "diff"))],
)
def test_a_missing_python_package_is_named(source, tmp_path, command, name):
    model = convert(source).path
    (tmp_path / "broken").mkdir()
    (tmp_path / "broken" / f"{name}.py").write_text(f"raise ImportError('no {name} here')\n")
    arguments = [source] if command == "convert" else [model, source]
    outcome = run(command, *arguments, before=tmp_path / "broken")
    assert outcome.returncode == 1
    assert outcome.stderr.startswith(f"ravu {command}: no {name} here; install what it needs: ")
    assert "pip install onnx onnxruntime pillow protobuf" in outcome.stderr
    assert outcome.stderr.count("\n") == 1


@pytest.mark.skipif(os.name == "nt", reason="pipes without SIGPIPE")
def test_a_reader_that_leaves_ends_the_command_quietly(source):
    model = convert(source).path
    reader, writer = os.pipe()
    os.close(reader)
    package = str(Path(ravu.__file__).parents[1])
    command = [sys.executable, "-m", "ravu", "verify", model, source]
    ended = subprocess.run(
        command, stdout=writer, stderr=subprocess.PIPE, env={**os.environ, "PYTHONPATH": package}
    )
    os.close(writer)
    assert ended.returncode == -signal.SIGPIPE and ended.stderr == b""


def test_a_package_without_the_program_says_so(source):
    package = Path(ravu.__file__).parent
    if (package / "ravu").exists():
        pytest.skip("this package holds the program")
    outcome = subprocess.run(
        [sys.executable, "-m", "ravu", "inspect", source],
        env={**os.environ, "PYTHONPATH": str(package.parent)},
        capture_output=True,
        text=True,
    )
    assert outcome.returncode == 1 and "without the ravu program" in outcome.stderr


def test_a_missing_package_is_explained(source, tmp_path):
    outcome = run("convert", source, packages=False, cwd=tmp_path)
    assert outcome.returncode == 1
    assert "pip install 'ravu-....whl[convert]'" in outcome.stderr
