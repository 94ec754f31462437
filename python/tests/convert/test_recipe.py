"""What sources expect of their pixels."""

import numpy as np
import pytest
from ravu.convert.graph import SourceError
from ravu.convert.recipe import IMAGENET_MEAN, Recipe
from ravu.convert.verify import source_pixels


def test_three_channels_have_the_usual_mean_unless_something_is_said():
    assert Recipe().resolved(3).mean == IMAGENET_MEAN
    assert Recipe(bgr=True).resolved(3).mean == IMAGENET_MEAN[::-1]
    for given in (Recipe(range=255), Recipe(mean=(0,)), Recipe(deviation=(1,))):
        resolved = given.resolved(3)
        assert (resolved.range, resolved.mean, resolved.deviation) == (255, (0,), (1,))
    assert Recipe().resolved(1).mean == (0.0,)


def test_caffe_takes_bytes_blue_green_red():
    recipe = Recipe().resolved_for_caffe()
    assert (recipe.range, recipe.bgr, recipe.mean) == (1, True, (0.0,))
    assert not Recipe(bgr=False).resolved_for_caffe().bgr


@pytest.mark.parametrize("bgr", [False, True])
def test_scale_and_shift_say_what_the_sources_program_does(bgr):
    recipe = Recipe(128.0, (0.1, 0.2, 0.3), (0.5, 0.6, 0.7), bgr).resolved(3)
    picture = np.random.default_rng(1).integers(0, 256, (4, 4, 3), np.uint8)
    scale, shift = recipe.affine(3)
    ours = picture[:, :, recipe.order(3)] * scale + shift
    np.testing.assert_allclose(source_pixels(picture, recipe)[0].transpose(1, 2, 0), ours, 1e-5)


def test_a_recipe_comes_back_from_its_card():
    recipe = Recipe(range=1.0, mean=[1.0, 2.0, 3.0], deviation=[1.0], bgr=True)
    assert Recipe.from_json(recipe.to_json()) == recipe


@pytest.mark.parametrize("value", [float("nan"), float("inf")])
def test_recipes_that_are_no_numbers_are_refused_as_such(value):
    for recipe in (Recipe(range=value), Recipe(mean=(0, value, 0)), Recipe(deviation=(value,))):
        with pytest.raises(SourceError, match="finite"):
            recipe.resolved(3).affine(3)


def test_hopeless_recipes_are_refused():
    for recipe in (Recipe(range=0.0), Recipe(deviation=(1, 0, 1)), Recipe(mean=(1, 2))):
        with pytest.raises(SourceError):
            recipe.resolved(3).affine(3)
    with pytest.raises(SourceError):
        Recipe(bgr=True).order(1)
