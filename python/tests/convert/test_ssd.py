"""Detectors in ONNX: cut at the heads that a description names, and completed."""

import json
from dataclasses import replace

import pytest
from ravu.convert import ConversionRefused, Recipe, SourceError
from ravu.convert import convert as run_converter
from ravu.convert.verify import table_error
from ravu.model_file import Model

import numpy as np
from sources import PLAIN, Source

OPTIONS = replace(PLAIN, recipe=Recipe(range=255.0, mean=(0.5,)))


def detector(tmp_path, sizes=(6, 12.5), **changes):
    """Two maps of 6 x 6 and 3 x 3 cells, and behind the heads something that ends in NMS."""
    source = Source(size=24)
    a = source.conv("image", 3, 6, (3, 3), strides=[4, 4], pads=[1, 1, 1, 1])
    b = source.conv(a, 6, 6, (3, 3), strides=[2, 2], pads=[1, 1, 1, 1])
    maps, tails = [], []
    for feature, size in ((a, sizes[0]), (b, sizes[1])):
        heads = {
            what: source.conv(feature, 6, 4 * n, bias=False)
            for what, n in (("locations", 4), ("scores", 3))
        }
        maps.append({**heads, "min_size": size, "max_size": 2 * size, "aspect_ratios": [2, 0.5]})
        tails += heads.values()
    tails = [source("Flatten", tail) for tail in tails]
    out = source("Sigmoid", source("Concat", *tails, axis=1))
    description = {
        "classes": 3,
        "maps": maps,
        "keep_top_k": 20,
        "confidence_threshold": 0.3,
        "top_k": 60,
        **changes,
    }
    (tmp_path / "ssd.json").write_text(json.dumps(description))
    return source, out


def convert(tmp_path, source, out):
    return source.convert(tmp_path, out, options=replace(OPTIONS, ssd=tmp_path / "ssd.json"))


@pytest.mark.parametrize("changes", [{}, {"variances": [0.2, 0.1, 0.3, 0.1]}, {"offset": 0.25}])
def test_a_detector_cut_at_its_heads_computes_the_same(tmp_path, changes):
    report = convert(tmp_path, *detector(tmp_path, **changes))
    assert list(report.outputs) == ["detections"]
    assert "detections" in {d.tensor for d in report.differences}
    model = Model.read(tmp_path / "out.ravu")
    assert model.layers[-1].keyword == "detectionout" and model.card["task"] == "detector"


def test_the_description_belongs_to_the_source(tmp_path):
    source, out = detector(tmp_path)
    convert(tmp_path, source, out)
    names = [entry["name"] for entry in Model.read(tmp_path / "out.ravu").card["source"]]
    assert names == ["source.onnx", "ssd.json"]
    description = tmp_path / "ssd.json"
    before = description.read_bytes()
    with pytest.raises(SourceError, match="would replace the source"):
        run_converter(source.save(tmp_path, out), description, replace(OPTIONS, ssd=description))
    assert description.read_bytes() == before


def test_boxes_cut_at_the_border_have_whole_sizes(tmp_path):
    assert convert(tmp_path, *detector(tmp_path, sizes=(6, 12), clip=True)).differences
    with pytest.raises(ConversionRefused, match="whole pixels"):
        convert(tmp_path, *detector(tmp_path, clip=True))


@pytest.mark.parametrize(
    "changes",
    [
        {"maps": []},
        {"classes": 1},
        {"classes": "3"},
        {"variances": [0.1]},
        {"unknown": 1},
        {"classes": 4},
        {"maps": [{"locations": "nothing", "scores": "nothing", "min_size": 3}]},
        {"maps": 3},
    ],
)
def test_damaged_descriptions_are_reported(tmp_path, changes):
    with pytest.raises(SourceError):
        convert(tmp_path, *detector(tmp_path, **changes))


def test_a_description_that_is_no_json_is_reported(tmp_path):
    source, out = detector(tmp_path)
    for text in ("", "[]", "{", '{"maps": 1}'):
        (tmp_path / "ssd.json").write_text(text)
        with pytest.raises(SourceError):
            convert(tmp_path, source, out)


def row(label, score, *corners):
    return [0, label, score, *corners]


def test_tables_are_compared_row_by_row():
    table = [row(1, 0.9, 0, 0, 1, 1), row(2, 0.8, 0, 0, 0.5, 0.5), [0] * 7]
    swapped = [table[1], table[0], [0] * 7]
    assert table_error(np.array(swapped), np.array(table)) == 0
    moved = [row(1, 0.9, 0, 0, 1, 1), row(2, 0.8, 0, 0, 0.6, 0.5), [0] * 7]
    assert table_error(np.array(moved), np.array(table)) == np.inf
    relabelled = [row(3, 0.9, 0, 0, 1, 1), table[1], [0] * 7]
    assert table_error(np.array(relabelled), np.array(table)) == np.inf
    assert table_error(np.zeros((3, 7)), np.array(table)) == np.inf
    assert table_error(np.zeros((3, 7)), np.zeros((3, 7))) == 0
