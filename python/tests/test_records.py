"""Every layer class: the keys that it writes, in order, and what comes back from them."""

import dataclasses

import numpy as np
import pytest
from ravu import tag_tree
from ravu.model_file import (
    LAYER_CLASSES,
    BatchNorm,
    Concat,
    Conv,
    DetectionOutput,
    EltWise,
    Flatten,
    FullyConnected,
    GroupedConv,
    L2Norm,
    Lrn,
    ModelFileError,
    Permute,
    Pool,
    Power,
    PRelu,
    PriorBox,
    Relu,
    Reshape,
    Scale,
    Softmax,
    UnknownLayer,
)
from ravu.records import read_layer

# Falling values: a block of rising positive ones would not survive quantisation.
KERNELS = np.arange(2 * 3 * 3 * 4, 0, -1, dtype=np.float32).reshape(2, 3, 3, 4)
BIAS = np.array([-0.5, 0.5], np.float32)
LINKS = ["output_layers", "input_layers"]
CONV_KEYS = ["class", "spec", "kernels", "are_kernels_transposed", "has_bias"]
CONV_KEYS += ["dilation_h", "dilation_w", "bias", "layers_count", "padding"]

CASES = {
    "conv": (Conv(kernels=KERNELS, bias=BIAS, stride=2, padding=1, dilation_w=2), CONV_KEYS),
    "gconv": (
        GroupedConv(kernels=[KERNELS, KERNELS - 1], biases=[BIAS, BIAS + 1], stride=2, padding=1),
        ["layers_count", "class", "layers"],
    ),
    "concat": (Concat(), ["class"]),
    "power": (Power(power=2, scale=0.5, shift=1), ["class", "power", "scale", "shift"]),
    "normalize": (
        Lrn(size=5, k=1, alpha=0.5, beta=0.75),
        ["class", "size", "k", "alpha", "beta"],
    ),
    "neuron": (
        FullyConnected(weights=-np.arange(6.0).reshape(3, 2), bias=BIAS),
        ["class", "spec", "are_weights_transposed", "weight", "has_bias", "bias"],
    ),
    "pool": (
        Pool(size=3, stride=2, padding_w=1, padding_h=2, mode="avg"),
        ["class", "psize", "stride", "paddingW", "paddingH", "mode"],
    ),
    "relu": (Relu(negative_slope=0.25), ["class", "negative_slope"]),
    "prelu": (PRelu(slopes=BIAS, channel_shared=True), ["class", "channel_shared", "filler"]),
    "eltwise": (EltWise(operation="prod"), ["class", "operation"]),
    "bn": (
        BatchNorm(mean=BIAS, divisor=BIAS + 1, epsilon=0.5, fraction=0.25),
        ["class", "maf", "eps", "is_global", "channels", "mean", "var"],
    ),
    "scale": (Scale(scales=BIAS, bias=BIAS + 1), ["class", "has_bias", "scales", "bias"]),
    "flatten": (Flatten(), ["class"]),
    "reshape": (
        Reshape(dims=[0, -1, 1, 1], inferred_axis=1, constant_count=3),
        ["class", "constant_count", "inferred_axis", "dims"],
    ),
    "norm": (
        L2Norm(scale=[20.0], across_spatial=True, channel_shared=True),
        ["class", "across_spatial", "channel_shared", "scale"],
    ),
    "priorbox": (
        PriorBox(
            min_size=[30],
            max_size=[60],
            aspect_ratios=[2, 0.5],
            variance=[0.5],
            num_priors=4,
            flip=True,
            clip=True,
            img_h=300,
            img_w=301,
            step_h=8,
            step_w=9,
            offset=0.25,
        ),
        ["class", "offset", "flip", "num_priors", "clip", "img_h", "img_w", "step_h", "step_w"]
        + ["aspect_ratios", "variance", "min_size", "max_size"],
    ),
    "permute": (
        Permute(order=[0, 3, 1, 2], need_permute=True),
        ["class", "need_permute", "permute_order"],
    ),
    "detectionout": (
        DetectionOutput(
            num_classes=21,
            share_location=True,
            num_loc_classes=1,
            background_label_id=-1,
            code_type=3,
            variance_encoded_in_target=True,
            keep_top_k=200,
            confidence_threshold=0.5,
            nms_threshold=0.25,
            eta=0.75,
            top_k=-1,
        ),
        ["class", "num_classes", "share_location", "num_loc_classes", "background_label_id"]
        + ["code_type", "variance_encoded_in_target", "keep_top_k", "confidence_threshold"]
        + ["nms_threshold", "eta", "top_k"],
    ),
    "max": (Softmax(), ["class"]),
}


def keys(record):
    elements = tag_tree.children(record)
    return [tag_tree.to_text(key) for key in elements[::2]]


def value(record, key):
    return tag_tree.lookup(record)[key]


def record_of(**values):
    """A layer record of plain values, for keys that no layer class writes."""
    make = {str: tag_tree.string, int: tag_tree.integer, float: tag_tree.float32}
    pairs = [(key.rstrip("_"), make.get(type(v), lambda v: v)(v)) for key, v in values.items()]
    return tag_tree.dictionary(pairs)


def changed(record, **values):
    """The record with further pairs behind its own: the last one of a key counts."""
    return tag_tree.Element(record.type, record.payload + record_of(**values).payload)


def without(record, key):
    pairs = zip(tag_tree.children(record)[::2], tag_tree.children(record)[1::2])
    kept = [(tag_tree.to_text(k), v) for k, v in pairs if tag_tree.to_text(k) != key]
    return tag_tree.dictionary(kept)


def fields(layer):
    """All fields in a form that can be compared."""
    return {
        entry.name: np.asarray(getattr(layer, entry.name)).tolist()
        for entry in dataclasses.fields(layer)
    }


def test_there_is_a_case_for_each_of_the_19_keywords():
    assert list(CASES) == list(LAYER_CLASSES)
    assert len(CASES) == 19


@pytest.mark.parametrize("keyword", CASES)
def test_keys_are_written_in_the_engines_order(keyword):
    layer, expected = CASES[keyword]
    record = layer.to_element()
    assert keys(record) == expected + LINKS
    assert tag_tree.to_text(value(record, "class")) == keyword


@pytest.mark.parametrize("keyword", CASES)
def test_layer_comes_back_as_it_was_built(keyword):
    layer = CASES[keyword][0]
    layer.inputs, layer.outputs = ["a", "b"], ["c"]
    again = read_layer(layer.to_element(), "layer")
    assert type(again) is LAYER_CLASSES[keyword]
    expected = fields(layer)
    if keyword == "neuron":
        assert again.weights.shape == (3, 2)
    assert fields(again) == expected
    assert again.to_element() == layer.to_element()


@pytest.mark.parametrize("keyword", CASES)
def test_only_convolution_and_fully_connected_tensors_are_quantised(keyword):
    layer = CASES[keyword][0]
    differs = layer.to_element(quantise=True) != layer.to_element()
    assert differs == (keyword in ("conv", "gconv", "neuron"))


@pytest.mark.parametrize("keyword", ["conv", "gconv", "neuron"])
def test_quantised_tensors_come_back_as_floats(keyword):
    layer = CASES[keyword][0]
    again = read_layer(layer.to_element(quantise=True), "layer", quantised=True)
    weights = "weights" if keyword == "neuron" else "kernels"
    given, returned = np.array(getattr(layer, weights)), np.array(getattr(again, weights))
    assert np.abs(given - returned).max() < 1.01


REQUIRED = {
    "conv": ["spec", "padding", "has_bias", "kernels", "bias"],
    "gconv": ["layers_count", "layers"],
    "neuron": ["spec", "weight", "has_bias", "bias"],
    "bn": ["mean", "var"],
    "scale": ["has_bias", "scales", "bias"],
    "prelu": ["channel_shared", "filler"],
    "eltwise": ["operation"],
    "pool": ["psize", "stride", "mode"],
    "normalize": ["size"],
    "norm": ["across_spatial", "channel_shared", "scale"],
    "permute": ["need_permute", "permute_order"],
    "reshape": ["constant_count", "inferred_axis", "dims"],
    "priorbox": ["flip", "num_priors", "clip", "img_h", "img_w", "step_h", "step_w"]
    + ["aspect_ratios", "variance", "min_size", "max_size"],
    "detectionout": ["num_classes", "share_location", "num_loc_classes", "background_label_id"]
    + ["code_type", "variance_encoded_in_target", "top_k", "keep_top_k"],
}


@pytest.mark.parametrize("keyword", CASES)
def test_exactly_the_required_keys_must_be_there(keyword):
    record = CASES[keyword][0].to_element()
    for key in keys(record):
        required = key == "class" or key in REQUIRED.get(keyword, [])
        if required:
            with pytest.raises(ModelFileError, match=f'"{key}" is missing'):
                read_layer(without(record, key), "layer 7")
        else:
            read_layer(without(record, key), "layer 7")


def test_message_names_layer_keyword_and_key():
    record = without(Pool(size=2, stride=2).to_element(), "psize")
    with pytest.raises(ModelFileError, match='^layer 7 \\("pool"\\): "psize" is missing$'):
        read_layer(record, "layer 7")


def test_absent_optional_keys_give_these_defaults():
    conv = Conv(kernels=KERNELS, dilation_h=3, dilation_w=3, kernels_transposed=True).to_element()
    for key in ("dilation_h", "dilation_w", "are_kernels_transposed", "layers_count"):
        conv = without(conv, key)
    layer = read_layer(conv, "layer")
    assert (layer.dilation_h, layer.dilation_w, layer.kernels_transposed) == (1, 1, False)
    layer = read_layer(record_of(class_="power", shift=2.0), "layer")
    assert (layer.power, layer.scale, layer.shift) == (0, 0, 2)
    assert read_layer(record_of(class_="relu"), "layer").negative_slope == 0
    layer = read_layer(record_of(class_="normalize", size=3), "layer")
    assert (layer.k, layer.alpha, layer.beta) == (0, 0, 0)
    layer = read_layer(record_of(class_="pool", psize=2, stride=2, mode="max"), "layer")
    assert (layer.padding_w, layer.padding_h) == (0, 0)
    layer = read_layer(record_of(class_="relu"), "layer")
    assert (layer.inputs, layer.outputs) == ([], [])


def test_convolution_geometry_follows_from_the_kernels():
    layer = Conv(kernels=KERNELS)
    assert (layer.num_kernels, layer.ksize) == (2, 3)
    spec = tag_tree.lookup(value(layer.to_element(), "spec"))
    assert list(spec) == ["num_kernels", "ksize", "stride"]
    assert [tag_tree.to_int(item) for item in spec.values()] == [2, 3, 1]


@pytest.mark.parametrize("shape", [(2, 3, 4, 1), (2, 9), (2, 3, 3)])
def test_kernels_of_another_shape_need_their_sizes_given(shape):
    with pytest.raises(ModelFileError, match="outputs, size, size, inputs"):
        Conv(kernels=np.zeros(shape))
    assert Conv(kernels=np.zeros(shape), num_kernels=2, ksize=3).ksize == 3


def test_flags_read_as_true_when_not_zero():
    record = changed(Conv(kernels=KERNELS, bias=BIAS).to_element(), has_bias=-7)
    assert read_layer(record, "layer").bias.tolist() == BIAS.tolist()
    record = changed(Conv(kernels=KERNELS, bias=BIAS).to_element(), has_bias=0)
    assert read_layer(record, "layer").bias is None


def test_layer_without_bias_writes_no_bias_key():
    for layer in (Conv(kernels=KERNELS), Scale(scales=BIAS), FullyConnected(weights=np.eye(2))):
        record = layer.to_element()
        assert "bias" not in keys(record)
        assert tag_tree.to_int(value(record, "has_bias")) == 0


def test_values_per_channel_are_stored_along_the_channel_axis():
    dims = tag_tree.lookup(value(BatchNorm(mean=BIAS, divisor=BIAS).to_element(), "var"))["dims"]
    assert [tag_tree.to_int(item) for item in tag_tree.children(dims)] == [1, 1, 1, 2, 2, 0]


def test_fully_connected_outputs_are_columns_or_with_the_flag_rows():
    weights = np.arange(6.0).reshape(3, 2)
    assert FullyConnected(weights=weights).num_output == 2
    assert FullyConnected(weights=weights, weights_transposed=True).num_output == 3
    with pytest.raises(ModelFileError, match="matrix"):
        FullyConnected(weights=np.zeros(6))


def test_grouped_convolution_has_a_conv_record_per_group_without_links():
    record = CASES["gconv"][0].to_element()
    groups = tag_tree.children(value(record, "layers"))
    assert [keys(group) for group in groups] == [CONV_KEYS, CONV_KEYS]
    assert tag_tree.to_int(value(record, "layers_count")) == 2


def test_last_group_decides_the_geometry():
    def group(stride):
        return Conv(kernels=KERNELS, stride=stride).to_element()

    layers = tag_tree.list_of([group(1), group(2), group(3)])
    record = record_of(class_="gconv", layers_count=3, layers=layers)
    assert read_layer(record, "layer").stride == 3


def test_groups_must_be_as_many_as_they_claim():
    for count in (3, 0, -1):
        record = changed(CASES["gconv"][0].to_element(), layers_count=count)
        with pytest.raises(ModelFileError, match="2 kernel sets"):
            read_layer(record, "layer")
    with pytest.raises(ModelFileError, match="1 biases for 2 groups"):
        GroupedConv(kernels=[KERNELS, KERNELS], biases=[BIAS])
    with pytest.raises(ModelFileError, match="at least one group"):
        GroupedConv(kernels=[])


def test_bias_flag_of_the_last_group_counts():
    with_bias = Conv(kernels=KERNELS, bias=BIAS).to_element()
    without_bias = Conv(kernels=KERNELS).to_element()
    layers = tag_tree.list_of([with_bias, without_bias])
    assert read_layer(record_of(class_="gconv", layers_count=2, layers=layers), "l").biases is None
    layers = tag_tree.list_of([without_bias, with_bias])
    with pytest.raises(ModelFileError, match="some of the groups"):
        read_layer(record_of(class_="gconv", layers_count=2, layers=layers), "layer")


@pytest.mark.parametrize(
    "text, mode", [("max", "max"), ("avg", "avg"), ("MAX", "avg"), ("maxi", "avg"), ("", "avg")]
)
def test_only_max_selects_max_pooling(text, mode):
    record = changed(Pool(size=2, stride=2).to_element(), mode=text)
    assert read_layer(record, "layer").mode == mode


def test_unknown_operation_reads_as_max_and_cannot_be_built():
    record = changed(EltWise().to_element(), operation="SUM")
    assert read_layer(record, "layer").operation == "max"
    with pytest.raises(ModelFileError, match="SUM"):
        EltWise(operation="SUM")
    with pytest.raises(ModelFileError, match="MAX"):
        Pool(size=2, stride=2, mode="MAX")


def test_arrays_of_four_integers_have_four():
    with pytest.raises(ModelFileError, match="3 entries"):
        Permute(order=[0, 1, 2])
    with pytest.raises(ModelFileError, match="5 entries"):
        Reshape(dims=[1] * 5)


def test_prior_box_lists_may_be_empty():
    again = read_layer(PriorBox(min_size=[], num_priors=0).to_element(), "layer")
    assert (again.min_size, again.max_size, again.aspect_ratios) == ([], [], [])


def test_links_may_be_empty_lists():
    layer = read_layer(Relu().to_element(), "layer")
    assert (layer.inputs, layer.outputs) == ([], [])


def test_unknown_class_is_kept_as_it_stands():
    record = record_of(class_="crop", size=3)
    layer = read_layer(record, "layer")
    assert type(layer) is UnknownLayer
    assert layer.keyword == "crop"
    assert layer.to_element() == record
