"""The committed classifier: its shape, its size, and what it says about the committed pictures."""

from pathlib import Path

import numpy as np
import pytest

HERE = Path(__file__).parent
pytest.importorskip("PIL")

from PIL import Image  # noqa: E402

from evaluate import Model, probabilities  # noqa: E402

PICTURES = sorted((HERE / "images").iterdir())


def opened():
    for path in PICTURES:
        with Image.open(path) as picture:
            yield picture.convert("RGB")


@pytest.fixture(scope="module")
def model():
    return Model.read(HERE / "characters.ravu")


def test_file_is_smaller_than_a_mebibyte():
    assert (HERE / "characters.ravu").stat().st_size < 2**20


def test_network_takes_pixels_and_names_36_classes(model):
    assert (model.input_size, model.image_size, model.input_channels) == (32, 32, 3)
    assert (model.layout, model.need_crop, model.need_quant) == ("BHWC", True, False)
    assert "".join(model.labels) == "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"
    assert model.data_mean.shape == (32, 32, 3)
    assert {layer.keyword for layer in model.layers} == {"conv", "relu", "pool", "neuron", "max"}


def test_pictures_are_twelve_png_and_jpeg_larger_than_the_input():
    assert [path.stem[:2] for path in PICTURES] == [f"{i:02}" for i in range(12)]
    assert {path.suffix for path in PICTURES} == {".png", ".jpg"}
    assert all(min(picture.size) > 32 for picture in opened())


def test_file_reads_the_pictures_as_well_as_the_readme_says(model):
    shrunk = [picture.resize((32, 32), Image.BILINEAR) for picture in opened()]
    scores = probabilities(model, np.stack([np.asarray(picture) for picture in shrunk]))
    np.testing.assert_allclose(scores.sum(axis=1), 1)
    guesses = [model.labels[best] for best in scores.argmax(axis=1)]
    right = sum(guess == path.stem[3:] for guess, path in zip(guesses, PICTURES))
    assert f"{right} of these 12" in (HERE / "README.md").read_text()
