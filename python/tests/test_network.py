"""Running models through the compiled module. Values are checked against numpy."""

import os
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest
from ravu.model_file import Conv, FullyConnected, Model, ModelFileError, Pool, Relu, Softmax

pytest.importorskip("ravu._engine", reason="the compiled module is not built")

import ravu  # noqa: E402
from ravu import EngineError, Mode, Network  # noqa: E402

RNG = np.random.default_rng(5)
KERNELS = RNG.normal(size=(3, 1, 1, 2)).astype(np.float32)
WEIGHTS = RNG.normal(size=(12, 4)).astype(np.float32)


def small_model(**options):
    model = Model(
        input_size=4, image_size=4, input_channels=2, labels=["a", "b", "c", "d"], **options
    )
    model.append(Conv(kernels=KERNELS), "conv")
    model.append(Relu(), "conv")
    model.append(Pool(size=2, stride=2), "pool")
    model.append(FullyConnected(weights=WEIGHTS), "score")
    model.append(Softmax(), "probability")
    return model


@pytest.fixture
def path(tmp_path):
    small_model(need_crop=False).write(tmp_path / "small.ravu")
    return tmp_path / "small.ravu"


def expected(pixels):
    maps = np.maximum(pixels.astype(np.float64) @ KERNELS[:, 0, 0].T, 0)
    pooled = maps.reshape(-1, 2, 2, 2, 2, 3).max(axis=(2, 4))
    scores = np.exp(pooled.reshape(-1, 12) @ WEIGHTS)
    return maps, scores / scores.sum(axis=1, keepdims=True)


def test_a_run_computes_the_model(path):
    pixels = RNG.random((2, 4, 4, 2), np.float32)
    maps, probabilities = expected(pixels)
    with Network(path, batch=2) as network:
        assert network.input_shape == (2, 4, 4, 2)
        assert network.labels == ["a", "b", "c", "d"]
        network.set_up(Mode.CPU)
        (output,) = network.run(pixels)
        np.testing.assert_allclose(output[:, 0, 0], probabilities, rtol=1e-5)
        np.testing.assert_allclose(network.hidden("conv"), maps, rtol=1e-5, atol=1e-6)
        np.testing.assert_array_equal(network.hidden(1), network.hidden("conv"))


def test_bytes_and_floats_of_the_same_value_agree(path):
    pixels = RNG.integers(0, 2, (1, 4, 4, 2), np.uint8)
    with Network(path) as network:
        (of_bytes,) = network.run(pixels)
        (of_floats,) = network.run(pixels.astype(np.float64))
        (of_one_image,) = network.run(pixels[0])
        (of_a_list,) = network.run([pixels[0]])
    for other in (of_floats, of_one_image, of_a_list):
        np.testing.assert_array_equal(of_bytes, other)


def test_outputs_are_copies(path):
    with Network(path) as network:
        (first,) = network.run(np.zeros((4, 4, 2), np.uint8))
        kept = first.copy()
        network.run(np.ones((4, 4, 2), np.uint8))
    np.testing.assert_array_equal(first, kept)
    first[:] = 0


@pytest.mark.parametrize("shape", [(3, 4, 2), (2, 4, 4, 2), (4, 4, 3), (4, 4), (0, 4, 4, 2)])
def test_images_of_another_shape_are_refused(path, shape):
    with Network(path) as network, pytest.raises(ValueError, match="for an input of"):
        network.run(np.zeros(shape, np.float32))


def test_unknown_tensors_are_refused(path):
    with Network(path) as network:
        with pytest.raises(KeyError, match="no layer writes"):
            network.hidden("con")
        for index in (-1, 5):
            with pytest.raises(IndexError):
                network.hidden(index)


def test_a_crop_counts_as_a_layer(tmp_path):
    model = small_model()
    model.input_size = 8
    model.write(tmp_path / "cropped.ravu")
    with Network(tmp_path / "cropped.ravu") as network:
        network.run(np.ones((8, 8, 2), np.float32))
        assert network.hidden("pool").shape == (1, 2, 2, 3)


def test_a_model_that_cannot_be_loaded_raises(tmp_path):
    (tmp_path / "bad.ravu").write_bytes(b"nothing")
    for name in ("bad.ravu", "missing.ravu"):
        with pytest.raises(EngineError, match="cannot be loaded"):
            Network(tmp_path / name)


def test_run_modes_that_cannot_be_had_raise(path):
    with Network(path) as network:
        with pytest.raises(EngineError, match="run mode 1"):
            network.set_up(1)
        assert issubclass(EngineError, RuntimeError)


def test_fixed_point_computes_nearly_the_same(path):
    pixels = RNG.integers(0, 4, (4, 4, 2), np.uint8)
    with Network(path) as network:
        (exact,) = network.run(pixels)
        try:
            network.set_up(Mode.FIXED_POINT)
        except EngineError as error:
            pytest.skip(str(error))
        (rounded,) = network.run(pixels)
    np.testing.assert_allclose(rounded, exact, atol=0.1)
    assert (rounded != exact).any()


@pytest.mark.skipif(sys.platform != "linux", reason="hides a library in the way of Linux")
def test_fixed_point_without_its_library_is_refused(path, tmp_path):
    library = "libravu_fixpoint.so"
    if (Path(ravu.__file__).parent / library).exists():
        pytest.skip("the library is found before what is hidden in the way")
    (tmp_path / library).write_bytes(b"")
    code = "import sys, ravu; ravu.Network(sys.argv[1]).set_up(3)"
    package = str(Path(ravu.__file__).parents[1])
    environment = {**os.environ, "PYTHONPATH": package, "LD_LIBRARY_PATH": str(tmp_path)}
    command = [sys.executable, "-c", code, str(path)]
    ended = subprocess.run(command, env=environment, capture_output=True, text=True)
    last = ended.stderr.splitlines()[-1]
    assert "EngineError: run mode 3: the fixed-point library cannot be loaded" in last


def test_a_closed_network_raises(path):
    network = Network(path)
    network.close()
    network.close()
    with pytest.raises(EngineError, match="closed"):
        network.run(np.zeros((4, 4, 2), np.uint8))
    assert "closed" in repr(network)


def test_a_saved_network_computes_the_same(path, tmp_path):
    pixels = RNG.random((4, 4, 2), np.float32)
    with Network(path) as network:
        (before,) = network.run(pixels)
        network.save(tmp_path / "again.ravu")
        with pytest.raises(EngineError, match="could not be saved"):
            network.save(tmp_path / "no folder" / "again.ravu")
    with Network(tmp_path / "again.ravu") as network:
        np.testing.assert_array_equal(network.run(pixels)[0], before)


def test_a_card_comes_back_and_a_damaged_one_is_reported(tmp_path):
    model = small_model(need_crop=False)
    model.card = {"source": "pets.onnx", "task": "classifier"}
    model.write(tmp_path / "card.ravu")
    assert Model.read(tmp_path / "card.ravu").card == model.card
    with Network(tmp_path / "card.ravu") as network:
        assert network.card == model.card
    damaged = model.to_bytes().replace(b'"source"', b'"source ')
    (tmp_path / "damaged.ravu").write_bytes(damaged)
    with Network(tmp_path / "damaged.ravu") as network:
        with pytest.raises(ModelFileError, match="model_card"):
            network.card


@pytest.mark.parametrize("offset", [1, 1001])
def test_labels_begin_at_the_cards_offset(tmp_path, offset):
    model = small_model(need_crop=False, card={"label_offset": offset})
    model.write(tmp_path / "offset.ravu")
    with Network(tmp_path / "offset.ravu") as network:
        assert network.labels == [""] * offset + ["a", "b", "c", "d"]


@pytest.mark.parametrize("offset", [-1, 1.0, True, "1", None, 1_000_001, 2**32 + 1])
def test_an_offset_that_is_none_is_left_out(tmp_path, offset):
    model = small_model(need_crop=False, card={"label_offset": offset})
    model.write(tmp_path / "offset.ravu")
    with Network(tmp_path / "offset.ravu") as network:
        assert network.labels == ["a", "b", "c", "d"]


def test_a_model_without_labels_has_none_before_its_offset_either(tmp_path):
    model = small_model(need_crop=False, card={"label_offset": 2})
    model.labels = []
    model.write(tmp_path / "bare.ravu")
    with Network(tmp_path / "bare.ravu") as network:
        assert network.labels == []


def test_the_package_offers_what_it_documents():
    assert {name for name in ravu.__all__ if not hasattr(ravu, name)} == set()
    with pytest.raises(AttributeError):
        ravu.Netwrok
