"""Where the engine's rules differ from the source's: the rewrite computes the same, and without it
the verification fails."""

from dataclasses import replace

import numpy as np
import pytest
from ravu.convert import VerificationFailed
from ravu.convert.builder import Builder
from ravu.convert.mapping import OPERATORS, pooling, shapes, weights
from ravu.model_file import L2Norm, Model

from sources import PLAIN, SIGNED, Source


def read_layers(tmp_path):
    return [layer.keyword for layer in Model.read(tmp_path / "out.ravu").layers]


def convert_with_and_without(source, outputs, tmp_path, monkeypatch, sabotage, options=PLAIN):
    report = source.convert(tmp_path, *outputs, options=options)
    assert report.differences
    layers = read_layers(tmp_path)
    sabotage(monkeypatch)
    with pytest.raises(VerificationFailed):
        source.convert(tmp_path, *outputs, options=options)
    return layers


def ignore_windows(monkeypatch):
    monkeypatch.setattr(pooling, "_engine_paddings", lambda p: (p.pads[0], p.pads[1]))


def test_padded_maxima_are_aligned_first(tmp_path, monkeypatch):
    source = Source(size=7)
    y = source("MaxPool", "image", kernel_shape=[3, 3], strides=[2, 2], pads=[1, 1, 1, 1])
    layers = convert_with_and_without(source, [y], tmp_path, monkeypatch, ignore_windows)
    assert layers[-2:] == ["gconv", "pool"]


@pytest.mark.parametrize("counts", [0, 1])
def test_padded_averages_become_convolutions(tmp_path, monkeypatch, counts):
    source = Source(size=7)
    y = source(
        "AveragePool",
        "image",
        kernel_shape=[3, 3],
        strides=[2, 2],
        pads=[1, 1, 1, 1],
        count_include_pad=counts,
    )
    convert_with_and_without(source, [y], tmp_path, monkeypatch, ignore_windows, SIGNED)


def test_averages_that_exclude_padding_are_corrected(tmp_path, monkeypatch):
    source = Source(size=6)
    y = source("AveragePool", "image", kernel_shape=[3, 3], strides=[1, 1], pads=[1, 1, 1, 1])

    def sabotage(monkeypatch):
        monkeypatch.setattr(pooling, "_corrected", lambda context, value, *rest: value)

    layers = convert_with_and_without(source, [y], tmp_path, monkeypatch, sabotage)
    assert layers[-2:] == ["pool", "scale"]


def corner(monkeypatch):
    """Kernels in the corner of their square, taps together: the engine's own reading."""
    place = weights.place_kernel
    monkeypatch.setattr(
        weights, "place_kernel", lambda *a: replace(place(*a), top=0, left=0, dilation=(1, 1))
    )


@pytest.mark.parametrize(
    "attributes",
    [
        {"kernel": (3, 3), "pads": [0, 0, 1, 1], "strides": [2, 2]},
        {"kernel": (2, 2), "pads": [0, 0, 1, 1]},
        {"kernel": (1, 5), "pads": [0, 2, 0, 2]},
        {"kernel": (5, 1), "pads": [2, 0, 2, 0], "strides": [2, 2]},
        {"kernel": (3, 3), "pads": [2, 2, 2, 2], "dilations": [2, 2]},
        {"kernel": (3, 3), "pads": [1, 2, 1, 2], "dilations": [1, 2]},
        {"kernel": (3, 3), "auto_pad": "SAME_UPPER", "strides": [2, 2]},
    ],
)
@pytest.mark.parametrize("groups", [1, 4])
def test_kernels_are_extended_with_zeros(tmp_path, monkeypatch, attributes, groups):
    source = Source(channels=4, size=8)
    y = source.conv("image", 4, 8, groups=groups, **attributes)
    convert_with_and_without(source, [y], tmp_path, monkeypatch, corner)


@pytest.mark.parametrize("op", ["Clip", "HardSigmoid"])
def test_limits_become_two_rectifiers(tmp_path, monkeypatch, op):
    source = Source()
    x = source.conv("image", 3, 5)
    if op == "Clip":
        y = source("Clip", x, source.constant(0), source.constant(0.6))
    else:
        y = source("HardSigmoid", x, alpha=2.0, beta=0.4)

    def sabotage(monkeypatch):
        monkeypatch.setattr(
            Builder, "clipped", lambda self, value, low, high, name: self.rectified(value, name)
        )

    convert_with_and_without(source, [y], tmp_path, monkeypatch, sabotage)


def test_l2_normalisation_is_a_wide_local_one(tmp_path, monkeypatch):
    source = Source(size=4)
    x = source("LpNormalization", source.conv("image", 3, 6), axis=1, p=2)
    y = source("Mul", x, source.weights(1, 6, 1, 1))

    def sabotage(monkeypatch):
        def own(context):
            value = context.settled()
            layer = L2Norm(scale=np.ones(value.dims[3]))
            blob = context.builder.add(layer, value, context.output, value.dims)
            context.bind(replace(value, blob=blob))

        # The engine's layer computes the norm, but its scale belongs to blocks of the image.
        def scaled(context):
            factors = context.constant(1, "B").ravel()
            context.builder.model.layers[-1].scale = factors
            context.bind(context.value())

        monkeypatch.setitem(OPERATORS, "LpNormalization", own)
        monkeypatch.setitem(OPERATORS, "Mul", scaled)

    layers = convert_with_and_without(source, [y], tmp_path, monkeypatch, sabotage)
    assert layers[-2:] == ["normalize", "scale"]


def shuffle(source, x, groups, channels, size):
    x = source("Reshape", x, source.ints(1, groups, channels // groups, size, size))
    x = source("Transpose", x, perm=[0, 2, 1, 3, 4])
    return source("Reshape", x, source.ints(1, -1, size, size))


def test_channel_shuffles_become_selections(tmp_path, monkeypatch):
    source = Source(channels=6, size=5)
    x = shuffle(source, "image", 2, 6, 5)
    y = source.conv(x, 6, 6, (3, 3), groups=6, pads=[1, 1, 1, 1])

    def sabotage(monkeypatch):
        def only_relabelled(context):
            value, order = context.value(), context.node.get("perm")
            shape = tuple(value.shape[i] for i in order)
            value = replace(value, select=value.select.reshape(shape[1:-2]), shape=shape)
            context.builder.bind(context.output, value)

        monkeypatch.setitem(OPERATORS, "Transpose", only_relabelled)

    layers = convert_with_and_without(source, [y], tmp_path, monkeypatch, sabotage)
    assert layers == ["scale", "conv", "gconv"] or layers == ["conv", "gconv"]


def test_convolutions_absorb_selections(tmp_path, monkeypatch):
    source = Source(channels=6, size=5)
    relu = source("Relu", source.conv("image", 6, 6))
    y = source.conv(shuffle(source, relu, 3, 6, 5), 6, 4)

    def sabotage(monkeypatch):
        absorbed = weights._absorbed
        monkeypatch.setattr(
            weights,
            "_absorbed",
            lambda c, v, *rest: absorbed(
                c, replace(v, select=np.sort(v.select)) if v.select is not None else v, *rest
            ),
        )

    layers = convert_with_and_without(source, [y], tmp_path, monkeypatch, sabotage)
    assert layers == ["conv", "relu", "conv"]


def test_dense_weights_follow_the_interleaved_order(tmp_path, monkeypatch):
    source = Source(size=4)
    x = source("Flatten", source.conv("image", 3, 5))
    y = source("Gemm", x, source.weights(7, 80), source.weights(7), transB=1)

    def sabotage(monkeypatch):
        relabel = shapes.relabel

        def unordered(context):
            relabel(context)
            value = context.builder.values[context.output]
            context.builder.values[context.output] = replace(value, planar=False)
            context.builder.visible.pop(context.output)

        monkeypatch.setitem(OPERATORS, "Flatten", unordered)

    convert_with_and_without(source, [y], tmp_path, monkeypatch, sabotage)


def test_a_mean_is_not_folded_into_a_padded_convolution(tmp_path, monkeypatch):
    source = Source()
    y = source.conv("image", 3, 4, (3, 3), pads=[1, 1, 1, 1])

    def sabotage(monkeypatch):
        absorbed = weights._absorbed
        monkeypatch.setattr(weights, "_absorbed", lambda *a: absorbed(*a[:-1], 0))

    layers = convert_with_and_without(source, [y], tmp_path, monkeypatch, sabotage, SIGNED)
    assert layers == ["scale", "conv"]


def test_a_mean_is_folded_into_a_convolution_without_padding(tmp_path):
    source = Source()
    y = source.conv("image", 3, 4, (3, 3), bias=False)
    source.convert(tmp_path, y, options=SIGNED)
    assert read_layers(tmp_path) == ["conv"]


def test_what_is_read_again_is_not_overwritten(tmp_path, monkeypatch):
    source = Source()
    x = source.conv("image", 3, 4)
    y = source("Add", source("Relu", x), x)

    def sabotage(monkeypatch):
        monkeypatch.setattr(Builder, "_may_overwrite", lambda self, blob: blob != "data")

    layers = convert_with_and_without(source, [y], tmp_path, monkeypatch, sabotage)
    assert layers == ["conv", "scale", "relu", "eltwise"]


def test_batch_normalisation_is_folded(tmp_path, monkeypatch):
    source = Source()
    x = source.conv("image", 3, 4, bias=False)
    parameters = [source.weights(4) for _ in range(3)] + [source.constant(np.full(4, 0.3))]
    y = source("Relu", source("BatchNormalization", x, *parameters, epsilon=0.1))

    def sabotage(monkeypatch):
        monkeypatch.setattr("ravu.convert.builder.absorb", lambda layer, scale, shift: None)

    layers = convert_with_and_without(source, [y], tmp_path, monkeypatch, sabotage)
    assert layers == ["conv", "relu"]


def test_blue_green_red_sources_take_our_pixels(tmp_path, monkeypatch):
    source = Source()
    y = source.conv("image", 3, 4, (3, 3), pads=[1, 1, 1, 1])
    options = replace(PLAIN, recipe=replace(SIGNED.recipe, bgr=True, mean=(0.1, 0.2, 0.3)))

    def sabotage(monkeypatch):
        monkeypatch.setattr(
            "ravu.convert.recipe.Recipe.order", lambda self, channels: list(range(channels))
        )

    convert_with_and_without(source, [y], tmp_path, monkeypatch, sabotage, options)


def test_limited_values_are_known_not_to_be_negative(tmp_path):
    source = Source()
    x = source("Clip", source.conv("image", 3, 4), source.constant(0), source.constant(6))
    x = source("Clip", source("Relu", x), "", source.constant(4))
    y = source("MaxPool", x, kernel_shape=[3, 3], strides=[2, 2], pads=[1, 1, 1, 1])
    assert source.convert(tmp_path, y).differences


def test_factors_and_terms_in_a_row_become_one_layer(tmp_path):
    source = Source()
    x = source("Sub", source("Relu", source.conv("image", 3, 4)), source.weights(4, 1, 1))
    x = source("Mul", source("Div", x, source.constant(3)), source.weights(4, 1, 1))
    source.convert(tmp_path, source("Add", x, source.constant(0.25)))
    assert read_layers(tmp_path) == ["conv", "relu", "scale", "scale"]
