"""Caffe descriptions of networks, with seeded weights; the tables are bench/peers's."""

from __future__ import annotations

import sys
from collections.abc import Sequence
from pathlib import Path

import numpy as np
from ravu.convert.caffe.schema import NetParameter

sys.path.insert(0, str(Path(__file__).parents[2] / "bench" / "peers"))
from networks import CLASSES, INCEPTION, MOBILENET, SSD300_EXTRAS, VGG16  # noqa: E402


class CaffeNet:
    """A description in the making. Every method appends layers and returns the last top's name."""

    def __init__(self, size: int, seed: int) -> None:
        self.text = f'input: "data" input_shape {{ dim: 1 dim: 3 dim: {size} dim: {size} }}\n'
        self.weights = NetParameter()
        self.channels = {"data": 3}
        self._rng = np.random.default_rng(seed)

    def layer(self, kind: str, name: str, bottoms: Sequence[str], top: str, parameters: str = ""):
        listed = " ".join(f'bottom: "{bottom}"' for bottom in bottoms)
        self.text += (
            f'layer {{ type: "{kind}" name: "{name}" {listed} top: "{top}" {parameters} }}\n'
        )
        self.channels.setdefault(top, self.channels.get(bottoms[0], 0))
        return top

    def blobs(self, name: str, *values: np.ndarray) -> None:
        layer = self.weights.layer.add(name=name)
        for value in values:
            blob = layer.blobs.add()
            blob.shape.dim.extend(value.shape)
            blob.data.extend(np.float32(value).ravel())

    def conv(
        self,
        name: str,
        bottom: str,
        outputs: int,
        kernel: int,
        *,
        stride: int = 1,
        pad: int = 0,
        group: int = 1,
        dilation: int = 1,
        spread: float = 2.0,
    ) -> str:
        inputs = self.channels[bottom] // group
        deviation = np.sqrt(spread / (inputs * kernel * kernel))
        weights = self._rng.normal(scale=deviation, size=(outputs, inputs, kernel, kernel))
        self.blobs(name, weights, self._rng.uniform(-0.1, 0.1, outputs))
        self.channels[name] = outputs
        return self.layer(
            "Convolution",
            name,
            [bottom],
            name,
            f"convolution_param {{ num_output: {outputs} kernel_size: {kernel} "
            f"stride: {stride} pad: {pad} group: {group} dilation: {dilation} }}",
        )

    def dense(self, name: str, bottom: str, inputs: int, outputs: int) -> str:
        weights = self._rng.normal(scale=np.sqrt(2 / inputs), size=(outputs, inputs))
        self.blobs(name, weights, self._rng.uniform(-0.1, 0.1, outputs))
        self.channels[name] = outputs
        return self.layer(
            "InnerProduct", name, [bottom], name, f"inner_product_param {{ num_output: {outputs} }}"
        )

    def relu(self, bottom: str) -> str:
        return self.layer("ReLU", bottom + "_relu", [bottom], bottom)

    def pool(
        self, name: str, bottom: str, kernel: int, stride: int, pad: int = 0, kind: str = "MAX"
    ) -> str:
        return self.layer(
            "Pooling",
            name,
            [bottom],
            name,
            f"pooling_param {{ pool: {kind} kernel_size: {kernel} stride: {stride} pad: {pad} }}",
        )

    def write(self, folder: Path) -> tuple[Path, Path]:
        prototxt, weights = folder / "deploy.prototxt", folder / "weights.caffemodel"
        prototxt.write_text(self.text, encoding="utf-8")
        weights.write_bytes(self.weights.SerializeToString())
        return prototxt, weights


def alexnet(size: int, seed: int) -> CaffeNet:
    """With local response normalisation, and convolutions in two groups."""
    net = CaffeNet(size, seed)
    lrn = "lrn_param { local_size: 5 alpha: 0.0001 beta: 0.75 }"
    x = net.relu(net.conv("conv1", "data", 96, 11, stride=4))
    x = net.pool("pool1", net.layer("LRN", "norm1", [x], "norm1", lrn), 3, 2)
    x = net.relu(net.conv("conv2", x, 256, 5, pad=2, group=2))
    x = net.pool("pool2", net.layer("LRN", "norm2", [x], "norm2", lrn), 3, 2)
    x = net.relu(net.conv("conv3", x, 384, 3, pad=1))
    x = net.relu(net.conv("conv4", x, 384, 3, pad=1, group=2))
    x = net.pool("pool5", net.relu(net.conv("conv5", x, 256, 3, pad=1, group=2)), 3, 2)
    side = ((size - 11) // 4 + 1) // 8
    x = net.relu(net.dense("fc6", x, 256 * side * side, 4096))
    x = net.relu(net.dense("fc7", x, 4096, 4096))
    net.layer("Softmax", "prob", [net.dense("fc8", x, 4096, 1000)], "prob")
    return net


def googlenet(size: int, seed: int) -> CaffeNet:
    """With local response normalisation, as in the paper."""
    net = CaffeNet(size, seed)
    lrn = "lrn_param { local_size: 5 alpha: 0.0001 beta: 0.75 }"
    x = net.relu(net.conv("conv1", "data", 64, 7, stride=2, pad=3))
    x = net.layer("LRN", "norm1", [net.pool("pool1", x, 3, 2)], "norm1", lrn)
    x = net.relu(net.conv("conv2_reduce", x, 64, 1))
    x = net.relu(net.conv("conv2", x, 192, 3, pad=1))
    x = net.pool("pool2", net.layer("LRN", "norm2", [x], "norm2", lrn), 3, 2)
    for name, (one, reduce3, three, reduce5, five, pooled) in INCEPTION.items():
        if name in ("4a", "5a"):
            x = net.pool("pool" + name, x, 3, 2)
        small = net.relu(net.conv(f"{name}_3r", x, reduce3, 1))
        large = net.relu(net.conv(f"{name}_5r", x, reduce5, 1))
        branches = [
            net.relu(net.conv(f"{name}_1", x, one, 1)),
            net.relu(net.conv(f"{name}_3", small, three, 3, pad=1)),
            net.relu(net.conv(f"{name}_5", large, five, 5, pad=2)),
            net.relu(net.conv(f"{name}_p", net.pool(f"{name}_pool", x, 3, 1, 1), pooled, 1)),
        ]
        x = net.layer("Concat", name, branches, name)
        net.channels[name] = one + three + five + pooled
    x = net.pool("pool5", x, size // 32, 1, kind="AVE")
    net.layer("Softmax", "prob", [net.dense("fc", x, 1024, 1000)], "prob")
    return net


def detection_heads(net: CaffeNet, features: Sequence[tuple[str, str]], top_k: int, keep: int):
    """Heads, priors and detection output. features: a map and its prior box parameters."""
    joined: dict[str, list[str]] = {"loc": [], "conf": [], "prior": []}
    for feature, prior in features:
        ratios = prior.count("aspect_ratio")
        boxes = 1 + prior.count("max_size") + 2 * ratios
        for what, channels in (("loc", 4), ("conf", CLASSES)):
            name = f"{feature}_{what}"
            x = net.conv(name, feature, channels * boxes, 3, pad=1, spread=1.0)
            x = net.layer(
                "Permute",
                name + "_perm",
                [x],
                name + "_perm",
                "permute_param { order: 0 order: 2 order: 3 order: 1 }",
            )
            joined[what].append(net.layer("Flatten", name + "_flat", [x], name + "_flat"))
        joined["prior"].append(
            net.layer(
                "PriorBox",
                feature + "_prior",
                [feature, "data"],
                feature + "_prior",
                f"prior_box_param {{ {prior} variance: 0.1 variance: 0.1 variance: 0.2 "
                "variance: 0.2 }",
            )
        )
    for what, axis in (("loc", 1), ("conf", 1), ("prior", 2)):
        net.layer("Concat", what, joined[what], what, f"concat_param {{ axis: {axis} }}")
    net.layer(
        "Reshape",
        "rows",
        ["conf"],
        "rows",
        f"reshape_param {{ shape {{ dim: 0 dim: -1 dim: {CLASSES} }} }}",
    )
    net.layer("Softmax", "soft", ["rows"], "soft", "softmax_param { axis: 2 }")
    net.layer("Flatten", "flat", ["soft"], "flat", "flatten_param { axis: 1 }")
    net.layer(
        "DetectionOutput",
        "detections",
        ["loc", "flat", "prior"],
        "detections",
        f"detection_output_param {{ num_classes: {CLASSES} keep_top_k: {keep} "
        "code_type: CENTER_SIZE confidence_threshold: 0.3 "
        f"nms_param {{ nms_threshold: 0.45 top_k: {top_k} }} }}",
    )


def ssd_vgg16(size: int, seed: int) -> CaffeNet:
    """The detector of 300 x 300 pixels on VGG16."""
    net = CaffeNet(size, seed)
    x = "data"
    for i, (outputs, count) in enumerate(VGG16, 1):
        for j in range(1, count + 1):
            x = net.relu(net.conv(f"conv{i}_{j}", x, outputs, 3, pad=1))
        x = net.pool("pool5", x, 3, 1, 1) if i == 5 else net.pool(f"pool{i}", x, 2, 2)
    x = net.relu(net.conv("fc6", x, 1024, 3, pad=6, dilation=6))
    x = net.relu(net.conv("fc7", x, 1024, 1))
    for i, (inner, outputs, stride, pad) in enumerate(SSD300_EXTRAS, 6):
        x = net.relu(net.conv(f"conv{i}_1", x, inner, 1))
        x = net.relu(net.conv(f"conv{i}_2", x, outputs, 3, stride=stride, pad=pad))
    net.layer(
        "Normalize",
        "conv4_3_norm",
        ["conv4_3"],
        "conv4_3_norm",
        "norm_param { across_spatial: false channel_shared: false }",
    )
    net.blobs("conv4_3_norm", np.full(512, 20.0))
    maps = ["conv4_3_norm", "fc7", "conv6_2", "conv7_2", "conv8_2", "conv9_2"]
    sizes, steps = [30, 60, 111, 162, 213, 264, 315], [8, 16, 32, 64, 100, 300]
    features = []
    for i, name in enumerate(maps):
        more = "aspect_ratio: 3" if name in ("fc7", "conv6_2", "conv7_2") else ""
        features.append(
            (
                name,
                f"min_size: {sizes[i]} max_size: {sizes[i + 1]} aspect_ratio: 2 "
                f"{more} step: {steps[i]} flip: true",
            )
        )
    detection_heads(net, features, top_k=400, keep=200)
    return net


def ssd_mobilenet(size: int, seed: int) -> CaffeNet:
    """The detector of 300 x 300 pixels on MobileNet v1, batch normalisation already folded."""
    net = CaffeNet(size, seed)
    x = net.relu(net.conv("conv0", "data", 32, 3, stride=2, pad=1))
    for i, (outputs, stride) in enumerate(MOBILENET, 1):
        inputs = net.channels[x]
        x = net.relu(net.conv(f"conv{i}_dw", x, inputs, 3, stride=stride, pad=1, group=inputs))
        x = net.relu(net.conv(f"conv{i}", x, outputs, 1))
    for i, (inner, outputs) in enumerate([(256, 512), (128, 256), (128, 256), (64, 128)], 14):
        x = net.relu(net.conv(f"conv{i}_1", x, inner, 1))
        x = net.relu(net.conv(f"conv{i}_2", x, outputs, 3, stride=2, pad=1))
    maps = ["conv11", "conv13", "conv14_2", "conv15_2", "conv16_2", "conv17_2"]
    sizes = [60, 105, 150, 195, 240, 285, 300]
    features = [("conv11", "min_size: 60 aspect_ratio: 2 flip: true")]
    features += [
        (
            name,
            f"min_size: {sizes[i]} max_size: {sizes[i + 1]} aspect_ratio: 2 aspect_ratio: 3 "
            "flip: true",
        )
        for i, name in enumerate(maps)
        if i > 0
    ]
    detection_heads(net, features, top_k=100, keep=100)
    return net
