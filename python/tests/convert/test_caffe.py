"""Caffe models: both layer forms, every layer type, detectors, damaged files."""

import numpy as np
import pytest
from ravu.convert import (
    ConversionRefused,
    Options,
    Recipe,
    SourceError,
    VerificationFailed,
    convert,
)
from ravu.convert.__main__ import main
from ravu.convert.caffe import load_caffe, read_mean
from ravu.convert.caffe.evaluate import CaffeSource
from ravu.convert.caffe.schema import V1_TYPES, BlobProto, NetParameter
from ravu.convert.mapping import detection
from ravu.model_file import Model

EXPECTED = (SourceError, ConversionRefused, VerificationFailed)
HEAD = 'input: "data" input_shape { dim: 2 dim: 3 dim: 9 dim: 9 }\n'
RECIPE = Recipe(range=255.0, mean=(0.5,))


def write(folder, text, blobs, *, old=False):
    """A prototxt and its weights: the values of each layer's blobs."""
    rng = np.random.default_rng(4)
    network = NetParameter()
    for name, shapes in blobs.items():
        layer = (network.layers if old else network.layer).add(name=name)
        for shape in shapes:
            values = shape if isinstance(shape, np.ndarray) else rng.normal(size=shape, scale=0.5)
            blob = layer.blobs.add()
            blob.data.extend(np.ravel(values))
            if old:
                sizes = (1,) * (4 - values.ndim) + values.shape
                blob.num, blob.channels, blob.height, blob.width = sizes
            else:
                blob.shape.dim.extend(values.shape)
    (folder / "net.prototxt").write_text(text)
    (folder / "net.caffemodel").write_bytes(network.SerializeToString())
    return folder / "net.prototxt", folder / "net.caffemodel"


def run(folder, text, blobs, *, recipe=RECIPE, old=False):
    source, weights = write(folder, HEAD + text, blobs, old=old)
    return convert(source, folder / "out.ravu", Options(recipe=recipe, weights=weights))


def layer(kind, name, bottom="data", top=None, **parameters):
    """One layer of the new form; `parameters` are messages as text."""
    messages = " ".join(f"{key} {{ {value} }}" for key, value in parameters.items())
    bottoms = " ".join(f'bottom: "{b}"' for b in bottom.split())
    tops = " ".join(f'top: "{t}"' for t in (top or name).split())
    return f'layer {{ type: "{kind}" name: "{name}" {bottoms} {tops} {messages} }}\n'


def conv(name, outputs=4, bottom="data", more="kernel_size: 1"):
    return layer("Convolution", name, bottom, convolution_param=f"num_output: {outputs} {more}")


CONV = {"c": [(4, 3, 1, 1), (4,)]}
CASES = {
    "AbsVal": (conv("c") + layer("AbsVal", "y", "c"), CONV),
    "BatchNorm": (conv("c") + layer("BatchNorm", "b", "c", "c")
                  + layer("Scale", "s", "c", "c", scale_param="bias_term: true"),
                  {**CONV, "b": [np.ones(4), np.full(4, 3.0), np.array([2.0])],
                   "s": [(4,), (4,)]}),
    "Bias": (conv("c") + layer("Bias", "y", "c"), {**CONV, "y": [(4,)]}),
    "Concat": (conv("c") + layer("Concat", "y", "c data"), CONV),
    "Convolution": (conv("c", 6, more="kernel_h: 3 kernel_w: 1 pad_h: 1 pad_w: 0 group: 3"),
                    {"c": [(6, 1, 3, 1), (6,)]}),
    "dilated": (conv("c", more="kernel_size: 3 pad: 2 dilation: 2 bias_term: false"),
                {"c": [(4, 3, 3, 3)]}),
    "DepthwiseConvolution": (layer("DepthwiseConvolution", "c",
                                   convolution_param="num_output: 3 kernel_size: 3 stride: 2"),
                             {"c": [(3, 1, 3, 3), (3,)]}),
    "Dropout": (conv("c") + layer("Dropout", "d", "c", "c"), CONV),
    "Eltwise": (conv("c") + conv("d") + layer("Eltwise", "y", "c d",
                                              eltwise_param="coeff: 1 coeff: -0.5"),
                {**CONV, "d": [(4, 3, 1, 1), (4,)]}),
    "maximum": (conv("c") + conv("d") + layer("Eltwise", "y", "c d",
                                              eltwise_param="operation: MAX"),
                {**CONV, "d": [(4, 3, 1, 1), (4,)]}),
    "Flatten": (conv("c") + layer("Flatten", "y", "c"), CONV),
    "InnerProduct": (conv("c") + layer("InnerProduct", "y", "c",
                                       inner_product_param="num_output: 5"),
                     {**CONV, "y": [(5, 324), (5,)]}),
    "LRN": (conv("c") + layer("LRN", "y", "c", lrn_param="local_size: 3 alpha: 0.5"), CONV),
    "Normalize": (conv("c") + layer("Normalize", "y", "c", norm_param="across_spatial: false"
                                    " channel_shared: false"), {**CONV, "y": [(4,)]}),
    "PReLU": (conv("c") + layer("PReLU", "y", "c"), {**CONV, "y": [(4,)]}),
    "Permute": (conv("c") + layer("Permute", "y", "c", permute_param="order: 0 order: 2 order: 3"),
                CONV),
    "Pooling": (layer("Pooling", "y", pooling_param="kernel_size: 2 stride: 2"), CONV),
    "averages": (layer("Pooling", "y", pooling_param="pool: AVE kernel_size: 3 stride: 2 pad: 1"),
                 CONV),
    "padded maxima": (layer("ReLU", "r") + layer("Pooling", "y", "r", pooling_param="pool: MAX"
                                                 " kernel_size: 3 stride: 2 pad: 1"), CONV),
    "global": (layer("Pooling", "y", pooling_param="pool: AVE global_pooling: true"), CONV),
    "floor": (layer("Pooling", "y", pooling_param="kernel_size: 2 stride: 2 round_mode: FLOOR"),
              CONV),
    "Power": (layer("Power", "y", power_param="power: 2 scale: 0.5 shift: 1"), CONV),
    "ReLU": (conv("c") + layer("ReLU", "y", "c", relu_param="negative_slope: 0.1"), CONV),
    "ReLU6": (conv("c") + layer("Power", "p", "c", power_param="scale: 20")
              + layer("ReLU6", "y", "p"), CONV),
    "Reshape": (conv("c") + layer("Permute", "p", "c", permute_param="order: 0 order: 2 order: 3")
                + layer("Reshape", "y", "p", reshape_param="shape { dim: 0 dim: -1 dim: 2 }")
                + layer("Softmax", "s", "y", softmax_param="axis: 2"), CONV),
    "Slice": (conv("c") + layer("Slice", "s", "c", "u v", slice_param="slice_point: 1")
              + layer("Concat", "y", "v u"), CONV),
    "Softmax": (conv("c") + layer("Softmax", "y", "c"), CONV),
    "Split": (conv("c") + layer("Split", "s", "c", "u v") + layer("ReLU", "r", "u", "u")
              + layer("Eltwise", "y", "u v"), CONV),
}  # fmt: skip


@pytest.mark.parametrize("name", CASES)
def test_the_layer_computes_the_same(tmp_path, name):
    text, blobs = CASES[name]
    assert run(tmp_path, text, blobs).differences


def test_the_old_form_is_read(tmp_path):
    text = """
    input: "data" input_dim: 1 input_dim: 3 input_dim: 9 input_dim: 9
    layers { name: "c" type: CONVOLUTION bottom: "data" top: "c"
             convolution_param { num_output: 4 kernel_size: 3 weight_filler { type: "xavier" } } }
    layers { name: "r" type: RELU bottom: "c" top: "c" }
    layers { name: "f" type: INNER_PRODUCT bottom: "c" top: "f"
             inner_product_param { num_output: 5 } }
    layers { name: "p" type: SOFTMAX bottom: "f" top: "p" }
    """
    blobs = {
        "c": [np.ones((4, 3, 3, 3)) / 9, np.zeros(4)],
        "f": [np.linspace(-1, 1, 980).reshape(5, 196), np.arange(5.0)],
    }
    source, weights = write(tmp_path, text, blobs, old=True)
    report = convert(source, options=Options(recipe=RECIPE, weights=weights))
    assert list(report.outputs) == ["p"] and report.differences
    assert (
        V1_TYPES[4] == "CONVOLUTION"
        and V1_TYPES[18] == "RELU"
        and V1_TYPES[39] == ("DECONVOLUTION")
    )


def test_layers_for_training_are_left_out(tmp_path):
    text = conv("c") + 'layer { type: "Accuracy" name: "a" bottom: "c" include { phase: TRAIN } }'
    text += 'layer { type: "Data" name: "d" top: "data2" }'
    assert run(tmp_path, text, CONV).layers == 1


def test_pixels_are_bytes_blue_green_red_less_the_mean(tmp_path):
    mean = BlobProto(num=1, channels=3, height=2, width=2)
    mean.data.extend(np.repeat([10.0, 20.0, 30.0], 4))
    (tmp_path / "mean.binaryproto").write_bytes(mean.SerializeToString())
    assert read_mean(tmp_path / "mean.binaryproto") == [10, 20, 30]
    source, weights = write(
        tmp_path,
        HEAD + conv("c", 1),
        {"c": [np.array([1.0, 0, 0]).reshape(1, 3, 1, 1), np.zeros(1)]},
    )
    assert main([str(source), str(weights), "--mean-file", str(tmp_path / "mean.binaryproto")]) == 0
    model = Model.read(tmp_path / "net.ravu")
    assert model.layers[0].kernels.ravel().tolist() == [0, 0, 1]
    assert model.layers[0].bias.tolist() == [-10]
    assert [entry["name"] for entry in model.card["source"]] == [
        "net.prototxt",
        "net.caffemodel",
        "mean.binaryproto",
    ]


def test_refusals_of_reading_and_mapping_are_listed_together(tmp_path):
    text = layer("LRN", "l", lrn_param="norm_region: WITHIN_CHANNEL") + layer("TanH", "t", "l")
    text += layer("Deconvolution", "d", "t") + layer("Softmax", "s", "d")
    with pytest.raises(ConversionRefused) as caught:
        run(tmp_path, text, CONV)
    assert [r.operator for r in caught.value.refusals] == [
        "Caffe.LRN",
        "Tanh",
        "Caffe.Deconvolution",
    ]


def test_a_layer_that_reads_nothing_is_refused(tmp_path):
    text = layer("Parameter", "p", bottom="") + layer("Eltwise", "y", "p data")
    with pytest.raises(ConversionRefused) as caught:
        run(tmp_path, text, CONV)
    assert [r.operator for r in caught.value.refusals] == ["Caffe.Parameter"]


DETECTOR = (
    """
input: "data" input_shape { dim: 1 dim: 3 dim: 24 dim: 24 }
"""
    + conv("a", 6, more="kernel_size: 3 stride: 4 pad: 1")
    + conv("b", 6, "a", "kernel_size: 3 stride: 2 pad: 1")
)


def detector(size, ratios=2, **options):
    """Two maps of 6 x 6 and 3 x 3 cells; one least size each, and their weights."""
    text, blobs, joined = DETECTOR, {"a": [(6, 3, 3, 3), (6,)], "b": [(6, 6, 3, 3), (6,)]}, {}
    boxes = 2 + 2 * (ratios - 1)
    for i, feature in enumerate("ab"):
        for what, channels in (("loc", 4 * boxes), ("conf", 3 * boxes)):
            name = f"{feature}_{what}"
            text += conv(name, channels, feature)
            blobs[name] = [(channels, 6, 1, 1), (channels,)]
            text += layer(
                "Permute", name + "_p", name, permute_param="order: 0 order: 2 order: 3 order: 1"
            )
            text += layer("Flatten", name + "_f", name + "_p")
            joined.setdefault(what, []).append(name + "_f")
        text += layer(
            "PriorBox",
            feature + "_prior",
            feature + " data",
            prior_box_param=f"min_size: {size * (i + 1)} max_size: {size * (i + 2)} "
            f"{'aspect_ratio: 2' if ratios > 1 else ''} variance: 0.1 variance: 0.1 variance: 0.2 "
            f"variance: 0.2 {options.get('prior', '')}",
        )
        joined.setdefault("prior", []).append(feature + "_prior")
    for what, axis in (("loc", 1), ("conf", 1), ("prior", 2)):
        text += layer("Concat", what, " ".join(joined[what]), concat_param=f"axis: {axis}")
    text += layer("Reshape", "rows", "conf", reshape_param="shape { dim: 0 dim: -1 dim: 3 }")
    text += layer("Softmax", "soft", "rows", softmax_param="axis: 2")
    text += layer("Flatten", "flat", "soft")
    text += layer(
        "DetectionOutput",
        "found",
        "loc flat prior",
        detection_output_param="num_classes: 3 keep_top_k: 20 confidence_threshold: 0.1 "
        "nms_param { nms_threshold: 0.4 top_k: 60 } code_type: CENTER_SIZE "
        + options.get("output", ""),
    )
    return text, blobs


def convert_detector(folder, *arguments, **options):
    text, blobs = detector(*arguments, **options)
    source, weights = write(folder, text, blobs)
    return convert(source, folder / "out.ravu", Options(recipe=RECIPE, weights=weights))


@pytest.mark.parametrize("size", [6, 5.5])
@pytest.mark.parametrize("ratios", [1, 2])
def test_detectors_compute_the_same(tmp_path, size, ratios):
    report = convert_detector(tmp_path, size, ratios)
    assert "found" in {d.tensor for d in report.differences}
    model = Model.read(tmp_path / "out.ravu")
    assert model.card["task"] == "detector" and list(report.outputs) == ["found"]
    output = model.layers[-1]
    assert output.variance_encoded_in_target and output.eta == 1
    assert all(l.variance == [1.0] for l in model.layers if l.keyword == "priorbox")


def test_without_the_encoded_variances_a_detector_differs(tmp_path, monkeypatch):
    monkeypatch.setattr(detection, "_encode", lambda *arguments: None)
    with pytest.raises(VerificationFailed):
        convert_detector(tmp_path, 6)


def test_without_the_correction_of_sizes_a_detector_differs(tmp_path, monkeypatch):
    boxes = detection._boxes

    def uncorrected(*arguments):
        found = boxes(*arguments)
        return detection.Boxes(found.engine, found.engine)

    monkeypatch.setattr(detection, "_boxes", uncorrected)
    with pytest.raises(VerificationFailed):
        convert_detector(tmp_path, 5.5)


@pytest.mark.parametrize(
    "options, reason",
    [
        ({"prior": "step: 4.5"}, "neither whole"),
        ({"output": "share_location: false"}, "one box per prior"),
    ],
)
def test_what_detectors_cannot_express_is_refused(tmp_path, options, reason):
    with pytest.raises(ConversionRefused, match=reason):
        convert_detector(tmp_path, 6, **options)


def test_damaged_files_are_reported(tmp_path):
    text, blobs = detector(6)
    source, weights = write(tmp_path, text, blobs)
    data, rng = weights.read_bytes(), np.random.default_rng(2)
    options = Options(recipe=RECIPE, weights=weights)
    for i in range(60):
        changed = bytearray(data[: rng.integers(len(data))] if i % 2 else data)
        for position in rng.integers(0, max(len(changed), 1), 3 * (i % 3)):
            if changed:
                changed[position] = rng.integers(256)
        weights.write_bytes(bytes(changed))
        (tmp_path / "out.ravu").unlink(missing_ok=True)
        try:
            convert(source, tmp_path / "out.ravu", options)
        except EXPECTED:
            assert not (tmp_path / "out.ravu").exists()
    weights.write_bytes(data)
    for i in range(100):
        changed = list(text)
        for position in rng.integers(0, len(text), 1 + i % 4):
            changed[position] = chr(rng.integers(32, 127))
        source.write_text("".join(changed[: rng.integers(len(text))] if i % 5 == 0 else changed))
        try:
            convert(source, tmp_path / "out.ravu", options)
        except EXPECTED:
            pass


def test_the_evaluation_agrees_with_opencv(tmp_path):
    cv2 = pytest.importorskip("cv2", reason="only for this cross-check")
    for name in (
        "Convolution",
        "dilated",
        "averages",
        "padded maxima",
        "LRN",
        "BatchNorm",
        "InnerProduct",
        "Eltwise",
        "Slice",
        "PReLU",
    ):
        text, blobs = CASES[name]
        source, weights = write(tmp_path, HEAD.replace("dim: 2", "dim: 1") + text, blobs)
        model = load_caffe(source, weights)
        pixels = np.float32(np.random.default_rng(1).random((1, 3, 9, 9)) - 0.5)
        network = cv2.dnn.readNetFromCaffe(str(source), str(weights))
        network.setInput(pixels)
        expected = network.forward()
        output = model.outputs[-1]
        got = CaffeSource(model, [output]).run(pixels)[output]
        np.testing.assert_allclose(got.ravel(), expected.ravel(), atol=1e-4, err_msg=name)
