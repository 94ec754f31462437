"""The networks of the comparison, written from the tables of their papers."""

from __future__ import annotations

from collections.abc import Callable

from graph import Graph

CLASSES = 21

BATCHES = (1, 8)
"""Images in a run."""

SCORES = 0.1
"""A spread that keeps scores close enough for a softmax to show their differences."""


def alexnet() -> Graph:
    """With local response normalisation, and convolutions in two groups."""
    net = Graph("alexnet", 227)
    x = net.conv("data", 96, 11, stride=4)
    x = net.max_pool(net.lrn(x), 3, 2)
    x = net.conv(x, 256, 5, pad=2, groups=2)
    x = net.max_pool(net.lrn(x), 3, 2)
    x = net.conv(x, 384, 3, pad=1)
    x = net.conv(x, 384, 3, pad=1, groups=2)
    x = net.max_pool(net.conv(x, 256, 3, pad=1, groups=2), 3, 2)
    x = net.dense(net.dense(x, 4096), 4096)
    net.softmax(net.dense(x, 1000, relu=False, spread=SCORES))
    return net


INCEPTION = {
    "3a": (64, 96, 128, 16, 32, 32), "3b": (128, 128, 192, 32, 96, 64),
    "4a": (192, 96, 208, 16, 48, 64), "4b": (160, 112, 224, 24, 64, 64),
    "4c": (128, 128, 256, 24, 64, 64), "4d": (112, 144, 288, 32, 64, 64),
    "4e": (256, 160, 320, 32, 128, 128), "5a": (256, 160, 320, 32, 128, 128),
    "5b": (384, 192, 384, 48, 128, 128),
}  # fmt: skip


def googlenet() -> Graph:
    """With local response normalisation, without the classifiers that only training needs."""
    net = Graph("googlenet", 224)
    x = net.lrn(net.max_pool(net.conv("data", 64, 7, stride=2, pad=3), 3, 2))
    x = net.conv(net.conv(x, 64, 1), 192, 3, pad=1)
    x = net.max_pool(net.lrn(x), 3, 2)
    for name, (one, reduce3, three, reduce5, five, pooled) in INCEPTION.items():
        if name in ("4a", "5a"):
            x = net.max_pool(x, 3, 2)
        x = net.concat(
            net.conv(x, one, 1),
            net.conv(net.conv(x, reduce3, 1), three, 3, pad=1),
            net.conv(net.conv(x, reduce5, 1), five, 5, pad=2),
            net.conv(net.max_pool(x, 3, 1, 1), pooled, 1),
        )
    net.softmax(net.dense(net.mean(x), 1000, relu=False, spread=SCORES))
    return net


def resnet50() -> Graph:
    """With the stride in the 3 x 3 convolutions. The pooling has no padding and rounds up."""
    net = Graph("resnet50", 224)
    x = net.max_pool(net.conv("data", 64, 7, stride=2, pad=3), 3, 2)
    for i, (width, blocks) in enumerate([(64, 3), (128, 4), (256, 6), (512, 3)]):
        for j in range(blocks):
            stride = 2 if i > 0 and j == 0 else 1
            inner = net.conv(net.conv(x, width, 1), width, 3, stride=stride, pad=1)
            # A small spread, since the sums of 16 blocks add up.
            branch = net.conv(inner, 4 * width, 1, relu=False, spread=0.2)
            if j == 0:
                x = net.conv(x, 4 * width, 1, stride=stride, relu=False, spread=1.0)
            x = net.add(x, branch)
    net.softmax(net.dense(net.mean(x), 1000, relu=False, spread=SCORES))
    return net


def squeezenet() -> Graph:
    """Version 1.1."""
    net = Graph("squeezenet", 224)
    x = net.max_pool(net.conv("data", 64, 3, stride=2), 3, 2)
    widths = [(16, 64), (16, 64), (32, 128), (32, 128), (48, 192), (48, 192), (64, 256), (64, 256)]
    for i, (squeezed, expanded) in enumerate(widths):
        if i in (2, 4):
            x = net.max_pool(x, 3, 2)
        x = net.conv(x, squeezed, 1)
        x = net.concat(net.conv(x, expanded, 1), net.conv(x, expanded, 3, pad=1))
    net.softmax(net.mean(net.conv(x, 1000, 1)))
    return net


MOBILENET = [(64, 1), (128, 2), (128, 1), (256, 2), (256, 1), (512, 2)]
MOBILENET += [(512, 1)] * 5 + [(1024, 2), (1024, 1)]


def mobilenet() -> Graph:
    """Version 1, full width."""
    net = Graph("mobilenet", 224)
    x = net.conv("data", 32, 3, stride=2, pad=1)
    for outputs, stride in MOBILENET:
        channels = net.shapes[x][0]
        x = net.conv(x, channels, 3, stride=stride, pad=1, groups=channels)
        x = net.conv(x, outputs, 1)
    net.softmax(net.dense(net.mean(x), 1000, relu=False, spread=SCORES))
    return net


VGG16 = [(64, 2), (128, 2), (256, 3), (512, 3), (512, 3)]


def vgg16() -> Graph:
    net = Graph("vgg16", 224)
    x = "data"
    for outputs, count in VGG16:
        for _ in range(count):
            x = net.conv(x, outputs, 3, pad=1)
        x = net.max_pool(x, 2, 2)
    x = net.dense(net.dense(x, 4096), 4096)
    net.softmax(net.dense(x, 1000, relu=False, spread=SCORES))
    return net


SSD300_EXTRAS = [(256, 512, 2, 1), (128, 256, 2, 1), (128, 256, 1, 0), (128, 256, 1, 0)]
"""Behind VGG16: outputs of a 1 x 1 convolution, outputs, stride and padding of a 3 x 3 one."""


def ssd300() -> Graph:
    """VGG16-SSD300 up to its heads: locations, and scores behind their softmax."""
    net = Graph("ssd300", 300)
    x, features = "data", []
    for i, (outputs, count) in enumerate(VGG16):
        for _ in range(count):
            x = net.conv(x, outputs, 3, pad=1)
        if i == 3:
            features.append(net.normalize(x, 20.0))
        x = net.max_pool(x, 3, 1, 1) if i == 4 else net.max_pool(x, 2, 2)
    x = net.conv(x, 1024, 3, pad=6, dilation=6)
    x = net.conv(x, 1024, 1)
    features.append(x)
    for inner, outputs, stride, pad in SSD300_EXTRAS:
        x = net.conv(net.conv(x, inner, 1), outputs, 3, stride=stride, pad=pad)
        features.append(x)
    for values, softmax in ((4, False), (CLASSES, True)):
        heads = [
            net.conv(feature, boxes * values, 3, pad=1, relu=False, spread=1.0)
            for feature, boxes in zip(features, (4, 6, 6, 6, 4, 4))
        ]
        table = net.rows(heads, values)
        if softmax:
            net.softmax(table)
    return net


NETWORKS: dict[str, tuple[str, Callable[[], Graph]]] = {
    "alexnet": ("AlexNet", alexnet),
    "googlenet": ("GoogLeNet", googlenet),
    "resnet50": ("ResNet-50", resnet50),
    "squeezenet": ("SqueezeNet 1.1", squeezenet),
    "mobilenet": ("MobileNet v1", mobilenet),
    "vgg16": ("VGG16", vgg16),
    "ssd300": ("VGG16-SSD300", ssd300),
}
