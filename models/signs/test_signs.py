"""Tests of the scenes, of the measure, and of the committed detector: its shape, size and skill."""

from __future__ import annotations

import json
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

HERE = Path(__file__).parent
pytest.importorskip("PIL")

from PIL import Image  # noqa: E402

from series import as_input, write_scenes  # noqa: E402
from precision import average_precisions  # noqa: E402
from reference import Detection, Model, decode, detect, evaluate, overlaps  # noqa: E402
from scenes import HELD_OUT_SERIES, TRAINING_SERIES, draw_scene  # noqa: E402
from signs import LABELS, SIGNS, Paint, bounds, draw_sign  # noqa: E402

PICTURES = sorted(path for path in (HERE / "images").iterdir() if path.suffix != ".json")


@pytest.fixture(scope="module")
def model():
    return Model.read(HERE / "signs.ravu")


@pytest.fixture(scope="module")
def scenes():
    return [draw_scene(HELD_OUT_SERIES, index) for index in range(12)]


class TestScenes:
    def test_same_number_gives_the_same_scene(self):
        first, again = (draw_scene(HELD_OUT_SERIES, 3) for _ in range(2))
        np.testing.assert_array_equal(np.asarray(first.image), np.asarray(again.image))
        np.testing.assert_array_equal(first.boxes, again.boxes)
        np.testing.assert_array_equal(first.labels, again.labels)

    def test_series_and_numbers_give_different_scenes(self):
        pictures = [
            draw_scene(series, index).image.tobytes()
            for series in (TRAINING_SERIES, HELD_OUT_SERIES)
            for index in (0, 1)
        ]
        assert len(set(pictures)) == 4

    def test_boxes_lie_in_their_pictures_and_are_not_empty(self, scenes):
        for scene in scenes:
            width, height = scene.image.size
            assert len(scene.boxes) == len(scene.labels) >= 1
            assert (scene.boxes >= 0).all()
            assert (scene.boxes[:, 2:] <= [width, height]).all()
            assert (scene.boxes[:, 2:] - scene.boxes[:, :2] >= 8).all()

    def test_labels_are_signs_and_never_the_background(self, scenes):
        labels = np.concatenate([scene.labels for scene in scenes])
        assert labels.min() >= 1 and labels.max() < len(LABELS)
        assert len(set(labels)) >= 8

    @pytest.mark.parametrize("name", SIGNS)
    def test_mask_of_a_sign_fills_its_bounds(self, name):
        paint = Paint(np.zeros(3), np.full(3, 200.0), np.full((3, 3), 90.0))
        pose = 40 * np.array([[np.cos(0.2), -np.sin(0.2)], [np.sin(0.2), np.cos(0.2)]])
        _, mask, corner = draw_sign(SIGNS[name], 0, pose, paint)
        rows, columns = np.nonzero(np.asarray(mask) > 64)
        drawn = [columns.min(), rows.min(), columns.max() + 1, rows.max() + 1]
        np.testing.assert_allclose(drawn + np.tile(corner, 2), bounds(SIGNS[name], pose), atol=1.6)

    def test_written_scenes_come_with_their_boxes(self, scenes, tmp_path):
        paths = write_scenes(scenes[:2], tmp_path, every_other_as_jpeg=True)
        assert [path.name for path in paths] == ["00.png", "01.jpg"]
        truth = json.loads((tmp_path / "truth.json").read_text())
        for path, scene, entry in zip(paths, scenes, truth):
            assert entry["image"] == path.name
            assert Image.open(path).size == scene.image.size == (entry["width"], entry["height"])
            assert [LABELS.index(sign["label"]) for sign in entry["signs"]] == list(scene.labels)
            boxes = [sign["box"] for sign in entry["signs"]]
            np.testing.assert_allclose(boxes, scene.boxes, atol=0.01)


def box(*sides: float) -> np.ndarray:
    return np.array(sides, float)


class TestPrecision:
    TRUTH = (np.array([1, 1]), np.array([[0, 0, 10, 10], [20, 0, 30, 10]], float))

    def precision(self, *pictures: list[Detection], truths=None) -> float:
        return average_precisions(pictures, truths or [self.TRUTH], [1])[1]

    def test_every_sign_found_and_nothing_else_is_one(self):
        found = [Detection(1, 0.9, box(0, 0, 10, 10)), Detection(1, 0.8, box(20, 0, 30, 10))]
        assert self.precision(found) == 1

    def test_nothing_found_is_zero(self):
        assert self.precision([]) == 0

    def test_half_of_the_signs_found_is_a_half(self):
        assert self.precision([Detection(1, 0.9, box(0, 0, 10, 10))]) == 0.5

    def test_finding_a_sign_twice_counts_as_a_mistake(self):
        found = [
            Detection(1, 0.9, box(0, 0, 10, 10)),
            Detection(1, 0.8, box(0, 0, 10, 9)),
            Detection(1, 0.7, box(20, 0, 30, 10)),
        ]
        assert self.precision(found) == pytest.approx(0.5 + 0.5 * 2 / 3)

    def test_mistakes_below_the_last_right_one_cost_nothing(self):
        found = [
            Detection(1, 0.9, box(0, 0, 10, 10)),
            Detection(1, 0.8, box(20, 0, 30, 10)),
            Detection(1, 0.7, box(50, 50, 60, 60)),
        ]
        assert self.precision(found) == 1

    def test_mistakes_above_a_right_one_lower_its_precision(self):
        found = [
            Detection(1, 0.9, box(50, 50, 60, 60)),
            Detection(1, 0.8, box(0, 0, 10, 10)),
            Detection(1, 0.7, box(20, 0, 30, 10)),
        ]
        # 1/2 at recall 1/2 is raised to the 2/3 reached at recall 1.
        assert self.precision(found) == pytest.approx(2 / 3)

    def test_an_overlap_of_exactly_a_half_is_right_and_less_is_not(self):
        assert self.precision([Detection(1, 0.9, box(0, 0, 10, 5))]) == 0.5
        assert self.precision([Detection(1, 0.9, box(0, 0, 10, 4.9))]) == 0

    def test_order_follows_the_scores_and_not_the_list(self):
        found = [Detection(1, 0.1, box(50, 50, 60, 60)), Detection(1, 0.9, box(0, 0, 10, 10))]
        assert self.precision(found) == 0.5

    def test_a_box_in_another_picture_or_of_another_class_is_wrong(self):
        empty = (np.zeros(0, int), np.zeros((0, 4)))
        elsewhere = [Detection(1, 0.9, box(0, 0, 10, 10))]
        assert self.precision([], elsewhere, truths=[self.TRUTH, empty]) == 0
        assert self.precision([Detection(2, 0.9, box(0, 0, 10, 10))]) == 0

    def test_classes_that_no_picture_shows_are_left_out(self):
        assert list(average_precisions([[]], [self.TRUTH], [1, 2])) == [1]


# Stands in for the ravu program: the same arguments and the same JSON, computed in numpy.
PROGRAM = """#!{python}
import json, sys
sys.path.insert(0, {folder!r})
import numpy as np
from PIL import Image
from reference import Model, detect
from series import as_input
command, model, *images, form, option, threshold, mode, number = sys.argv[1:]
assert (command, form, option, threshold) == ("detect", "--json", "--threshold", "0")
assert (mode, number) == ("--mode", "0")
model, result = Model.read(model), []
for path in reversed(images):
    picture = Image.open(path)
    found = detect(model, as_input(picture)[None])[0]
    sides = np.tile(picture.size, 2)
    boxes = [
        dict(label=model.labels[i], index=i, score=score, box=list(box * sides))
        for i, score, box in found
    ]
    result.append(
        dict(image=path, width=picture.width, height=picture.height, detections=boxes)
    )
print(json.dumps(result))
"""


class TestEvaluate:
    def evaluate(self, program):
        command = [sys.executable, HERE / "evaluate.py", program, "--count", "12"]
        return subprocess.run(command, capture_output=True, text=True, check=False)

    def write_program(self, path, text):
        path.write_text(text)
        path.chmod(0o755)
        return path

    def test_program_that_detects_is_measured(self, tmp_path, model, scenes):
        text = PROGRAM.format(python=sys.executable, folder=str(HERE))
        result = self.evaluate(self.write_program(tmp_path / "ravu", text))
        assert result.returncode == 0, result.stderr
        inputs = np.stack([as_input(scene.image) for scene in scenes])
        truths = [
            (scene.labels, scene.boxes / np.tile(scene.image.size, 2)) for scene in scenes
        ]
        each = average_precisions(detect(model, inputs), truths, range(1, len(LABELS)))
        mean = np.mean(list(each.values()))
        assert f"mAP at 0.5 on 12 held-out scenes: {mean:.3f}" in result.stdout

    def test_program_that_fails_or_leaves_pictures_out_is_reported(self, tmp_path):
        failing = self.write_program(tmp_path / "failing", "#!/bin/sh\nexit 3\n")
        assert "failed with status 3" in self.evaluate(failing).stderr
        silent = self.write_program(tmp_path / "silent", "#!/bin/sh\necho '[]'\n")
        assert "left out 12 pictures" in self.evaluate(silent).stderr


class TestReference:
    def test_overlap_is_intersection_over_union(self):
        others = np.array([[0, 0, 2, 2], [1, 0, 3, 2], [2, 0, 4, 2], [5, 5, 6, 6]], float)
        np.testing.assert_allclose(overlaps(others[0], others), [1, 1 / 3, 0, 0])

    def test_locations_of_zero_decode_to_the_priors(self):
        priors = np.array([[0.1, 0.2, 0.5, 0.4]])
        np.testing.assert_allclose(decode(np.zeros((1, 4)), priors), priors)

    def test_locations_move_by_prior_sizes_and_grow_by_powers_of_e(self):
        found = decode(np.array([[0.5, -1, np.log(2), 0]]), np.array([[0.0, 0.0, 0.4, 0.2]]))
        np.testing.assert_allclose(found, [[0, -0.2, 0.8, 0]], atol=1e-12)


class TestObjective:
    """Skipped where PyTorch is missing: only training needs it."""

    PRIORS = np.array([[0, 0, 0.4, 0.4], [0.1, 0, 0.5, 0.4], [0.6, 0.6, 1, 1]], np.float32)

    @pytest.fixture
    def objective(self):
        torch = pytest.importorskip("torch")
        from objective import Objective

        return Objective(torch.from_numpy(self.PRIORS))

    def match(self, objective, boxes, labels):
        import torch

        wanted, owner = objective.match(torch.tensor([boxes]), torch.tensor([labels]))
        return wanted[0].tolist(), owner[0].tolist()

    def test_priors_that_overlap_a_sign_enough_answer_for_it(self, objective):
        # Overlaps 1, 3 / 5 and 0.
        assert self.match(objective, [[0.0, 0.0, 0.4, 0.4]], [7])[0] == [7, 7, 0]

    def test_every_sign_has_the_prior_that_fits_best_however_badly(self, objective):
        assert self.match(objective, [[0.9, 0.9, 1.0, 1.0]], [5])[0] == [0, 0, 5]

    def test_a_prior_answers_for_the_sign_that_it_overlaps_most(self, objective):
        signs = [[0.0, 0.0, 0.4, 0.4], [0.1, 0.0, 0.5, 0.4]]
        assert self.match(objective, signs, [7, 3]) == ([7, 3, 0], [0, 1, 0])

    def test_places_without_a_sign_are_never_matched(self, objective):
        signs = [[0.1, 0.0, 0.5, 0.4], [0.0, 0.0, 0.0, 0.0]]
        assert self.match(objective, signs, [3, 0])[0] == [3, 3, 0]

    def test_what_is_encoded_decodes_to_the_sign(self, objective):
        import torch

        signs = np.array([[[0.05, 0.1, 0.3, 0.5], [0, 0, 1, 1], [0.5, 0.7, 0.8, 0.9]]], np.float32)
        locations = objective.encode(torch.from_numpy(signs)) * objective.variances
        np.testing.assert_allclose(decode(locations[0].numpy(), self.PRIORS), signs[0], atol=1e-6)

    def test_a_few_of_the_worst_negatives_count(self):
        torch = pytest.importorskip("torch")
        from objective import hardest_negatives

        loss = torch.tensor([[9.0, 1.0, 5.0, 4.0, 3.0, 2.0]])
        positive = torch.tensor([[True, False, False, False, False, False]])
        chosen = hardest_negatives(loss, positive)[0].tolist()
        assert chosen == [False, False, True, True, True, True]


class TestModel:
    def test_file_is_smaller_than_two_mebibytes(self):
        assert (HERE / "signs.ravu").stat().st_size < 2 * 2**20

    def test_network_takes_pixels_and_names_its_classes(self, model):
        assert (model.input_size, model.image_size, model.input_channels) == (128, 128, 3)
        assert (model.layout, model.need_crop, model.data_mean) == ("BHWC", False, None)
        assert model.labels == list(LABELS)
        assert model.labels[0] == "background"

    def test_layers_are_those_of_a_detector(self, model):
        assert {layer.keyword for layer in model.layers} == {
            *("conv", "bn", "scale", "relu", "pool", "flatten", "concat"),
            *("reshape", "max", "priorbox", "detectionout"),
        }

    def test_every_layer_reads_what_an_earlier_one_wrote(self, model):
        written = {model.input_name}
        for layer in model.layers:
            assert written.issuperset(layer.inputs)
            written.update(layer.outputs)

    def test_pooling_covers_its_input_without_remainder_or_padding(self, model):
        blobs = evaluate(model, np.zeros((1, 128, 128, 3)))
        for layer in model.layers:
            if layer.keyword == "pool":
                rows, columns = blobs[layer.inputs[0]].shape[1:3]
                assert rows % layer.size == columns % layer.size == 0
                assert (layer.stride, layer.padding_w, layer.padding_h) == (layer.size, 0, 0)

    def test_priors_state_one_variance_and_as_many_boxes_as_they_give(self, model):
        for layer in (layer for layer in model.layers if layer.keyword == "priorbox"):
            assert len(layer.variance) == 1
            assert layer.num_priors == len(layer.min_size) * (2 + len(layer.aspect_ratios))
            assert all(size == int(size) for size in (*layer.min_size, *layer.max_size))
            assert layer.inputs[1] == model.input_name

    def test_detection_output_agrees_with_its_inputs(self, model):
        last = model.layers[-1]
        blobs = evaluate(model, np.zeros((2, 128, 128, 3)))
        locations, scores, priors = (blobs[name] for name in last.inputs)
        count = priors.size // 8
        assert locations.shape == (2, 1, 1, count * 4)
        assert scores.shape == (2, count, 1, last.num_classes)
        assert (last.code_type, last.variance_encoded_in_target, last.eta) == (2, True, 1.0)
        assert (last.background_label_id, last.share_location) == (0, True)
        np.testing.assert_allclose(scores.sum(axis=3), 1, atol=1e-5)

    def test_pictures_are_eight_png_and_jpeg_with_their_truth(self):
        truth = json.loads((HERE / "images" / "truth.json").read_text())
        assert [entry["image"] for entry in truth] == [path.name for path in PICTURES]
        assert [path.suffix for path in PICTURES] == [".png", ".jpg"] * 4

    def test_file_finds_the_signs_in_the_pictures(self, model):
        truth = json.loads((HERE / "images" / "truth.json").read_text())
        inputs = np.stack([as_input(Image.open(path)) for path in PICTURES])
        found = total = 0
        for detections, entry in zip(detect(model, inputs), truth):
            sides = np.tile([entry["width"], entry["height"]], 2)
            for sign in entry["signs"]:
                label = LABELS.index(sign["label"])
                boxes = [one.box for one in detections if one.label == label and one.score > 0.4]
                hits = overlaps(np.array(sign["box"]) / sides, np.array(boxes).reshape(-1, 4))
                found += bool((hits >= 0.5).any())
                total += 1
        assert f"{found} of the {total} signs" in (HERE / "README.md").read_text()
