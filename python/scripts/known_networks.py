"""Converts well-known networks with seeded random weights, and writes the table of
docs/converting.md. Takes minutes and needs torch, torchvision, onnx and onnxruntime:

    PYTHONPATH=build/dev/python build/venv/bin/python3 python/scripts/known_networks.py [NAME...]

Without names it converts all; with names it renews their rows and leaves the others.
"""

from __future__ import annotations

import json
import sys
import tempfile
import time
from collections.abc import Callable
from dataclasses import dataclass, replace
from pathlib import Path

import caffe_networks
import numpy as np
import torch
import torchvision
from ravu import Network
from ravu.convert import (
    ConversionRefused,
    Options,
    Recipe,
    Report,
    VerificationFailed,
    convert,
)
from torch import nn

SEED = 20
DOCUMENT = Path(__file__).parents[2] / "docs" / "converting.md"
BEGIN, END = "<!-- table of networks -->\n", "<!-- end of the table -->\n"


@dataclass(frozen=True)
class Candidate:
    """A network, where its source comes from, and how to make it.

    make: writes the source into a folder and returns its path, and that of its weights if they
          have a file of their own, or of the description of its heads
    """

    name: str
    origin: str
    size: int
    make: Callable[[Path, int], tuple[Path, Path | None]]
    options: Options = Options()


def mobilenet_v1() -> nn.Module:
    """The table of the paper: depthwise separable convolutions, one dense layer."""

    def block(inputs: int, outputs: int, stride: int) -> list[nn.Module]:
        return [
            nn.Conv2d(inputs, inputs, 3, stride, 1, groups=inputs, bias=False),
            nn.BatchNorm2d(inputs),
            nn.ReLU(),
            nn.Conv2d(inputs, outputs, 1, bias=False),
            nn.BatchNorm2d(outputs),
            nn.ReLU(),
        ]

    layers: list[nn.Module] = [nn.Conv2d(3, 32, 3, 2, 1, bias=False), nn.BatchNorm2d(32), nn.ReLU()]
    inputs = 32
    for outputs, stride in caffe_networks.MOBILENET:
        layers += block(inputs, outputs, stride)
        inputs = outputs
    layers += [nn.AdaptiveAvgPool2d(1), nn.Flatten(), nn.Linear(1024, 1000)]
    return nn.Sequential(*layers)


def randomise(model: nn.Module) -> None:
    """Weights that keep activations in range, and statistics that are not the identity."""
    for module in model.modules():
        if isinstance(module, (nn.Conv2d, nn.Linear)):
            nn.init.kaiming_normal_(module.weight)
            if module.bias is not None:
                module.bias.data.uniform_(-0.1, 0.1)
        elif isinstance(module, nn.BatchNorm2d):
            module.running_mean.uniform_(-0.2, 0.2)
            module.running_var.uniform_(0.6, 1.4)
            module.weight.data.uniform_(0.5, 1.0)
            module.bias.data.uniform_(-0.2, 0.2)


def from_torch(build: Callable[[], nn.Module]) -> Callable[[Path, int], tuple[Path, None]]:
    """Export with the operator set that most exporters write today."""

    def make(folder: Path, size: int) -> tuple[Path, None]:
        torch.manual_seed(SEED)
        model = build().eval()
        randomise(model)
        path = folder / "source.onnx"
        torch.onnx.export(model, torch.zeros(1, 3, size, size), str(path), opset_version=13)
        return path, None

    return make


def from_caffe(
    build: Callable[[int, int], caffe_networks.CaffeNet],
) -> Callable[[Path, int], tuple[Path, Path]]:
    return lambda folder, size: build(size, SEED).write(folder)


def torchvision_model(name: str, **options: bool) -> Callable[[Path, int], tuple[Path, None]]:
    return from_torch(lambda: getattr(torchvision.models, name)(weights=None, **options))


class Heads(nn.Module):
    """A detector up to its heads: what comes before and after is pictures and boxes in Python."""

    def __init__(self, detector: nn.Module) -> None:
        super().__init__()
        self.backbone, self.head = detector.backbone, detector.head

    def forward(self, pixels: torch.Tensor) -> tuple[torch.Tensor, torch.Tensor]:
        found = self.head(list(self.backbone(pixels).values()))
        return found["bbox_regression"], found["cls_logits"]


def cut_detector(folder: Path, size: int) -> tuple[Path, Path]:
    def build() -> nn.Module:
        model = torchvision.models.detection.ssd300_vgg16(
            weights=None, weights_backbone=None, num_classes=caffe_networks.CLASSES
        )
        return Heads(model)

    path, _ = from_torch(build)(folder, size)
    sizes = [21, 45, 99, 153, 207, 261, 315]
    maps = []
    for i, (ratios, step) in enumerate(zip([1, 2, 2, 2, 1, 1], [8, 16, 32, 64, 100, 300])):
        head = f"/head/{{}}_head/module_list.{i}/Conv_output_0"
        maps.append(
            {
                "locations": head.format("regression"),
                "scores": head.format("classification"),
                "min_size": sizes[i],
                "max_size": sizes[i + 1],
                "aspect_ratios": [2, 1 / 2, 3, 1 / 3][: 2 * ratios],
                "step": step,
            }
        )
    description = {"classes": caffe_networks.CLASSES, "maps": maps, "confidence_threshold": 0.3}
    (folder / "heads.json").write_text(json.dumps(description))
    return path, folder / "heads.json"


CANDIDATES = [
    *(
        Candidate(title, "torchvision", size, torchvision_model(name, **options))
        for title, name, size, options in [
            ("AlexNet", "alexnet", 224, {}),
            ("VGG16", "vgg16", 224, {}),
            ("GoogLeNet", "googlenet", 224, {"init_weights": False}),
            ("SqueezeNet 1.1", "squeezenet1_1", 224, {}),
            ("ResNet-18", "resnet18", 224, {}),
            ("ResNet-50", "resnet50", 224, {}),
            ("MobileNet v2", "mobilenet_v2", 224, {}),
            ("Inception v3", "inception_v3", 299, {"init_weights": False}),
            ("DenseNet-121", "densenet121", 224, {}),
            ("ShuffleNet v2 1.0", "shufflenet_v2_x1_0", 224, {}),
            ("MNASNet 1.0", "mnasnet1_0", 224, {}),
            ("MobileNet v3 small", "mobilenet_v3_small", 224, {}),
            ("EfficientNet-B0", "efficientnet_b0", 224, {}),
        ]
    ),
    Candidate("SSD300 VGG16", "torchvision, cut at its heads", 300, cut_detector),
    Candidate("MobileNet v1", "the paper's table, in torch", 224, from_torch(mobilenet_v1)),
    *(
        Candidate(title, "the paper's table, in Caffe", size, from_caffe(build), Options(recipe))
        for title, size, build, recipe in [
            ("AlexNet, grouped", 227, caffe_networks.alexnet, Recipe(mean=(104, 117, 123))),
            ("GoogLeNet with LRN", 224, caffe_networks.googlenet, Recipe(mean=(104, 117, 123))),
            ("MobileNet-SSD", 300, caffe_networks.ssd_mobilenet, Recipe(127.5, (1,))),
            ("VGG16-SSD300", 300, caffe_networks.ssd_vgg16, Recipe(mean=(104, 117, 123))),
        ]
    ),
]


def row(candidate: Candidate) -> str:
    """Convert, verify, run once; one line of the table."""
    print(f"{candidate.name} ...", file=sys.stderr)
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        source, weights = candidate.make(folder, candidate.size)
        is_description = weights is not None and weights.suffix == ".json"
        more = {"ssd": weights} if is_description else {"weights": weights}
        options = replace(candidate.options, **more)
        start = time.monotonic()
        try:
            report = convert(source, folder / "out.ravu", options)
        except ConversionRefused as refused:
            outcome, layers, tensors = refusal_text(refused), "", ""
        except VerificationFailed as failed:
            outcome, layers, tensors = f"**differs**: {failed}", "", ""
        else:
            run_once(report)
            worst = report.differences[0]
            outcome = f"verified, worst {worst.relative:.0e}"
            layers, tensors = str(report.layers), str(len(report.differences))
        seconds = time.monotonic() - start
    print(f"  {outcome}, {seconds:.0f} s", file=sys.stderr)
    cells = (candidate.name, candidate.origin, str(candidate.size), layers, tensors, outcome)
    return "| " + " | ".join(cells) + " |\n"


def refusal_text(refused: ConversionRefused) -> str:
    kinds: dict[tuple[str, str], int] = {}
    for refusal in refused.refusals:
        key = (refusal.operator, refusal.reason)
        kinds[key] = kinds.get(key, 0) + 1
    reasons = (f"{count} x {op} {reason}" for (op, reason), count in kinds.items())
    return "refused: " + "; ".join(reasons)


def run_once(report: Report) -> None:
    """The written file loads and gives finite outputs."""
    with Network(report.path) as network:
        picture = np.full(network.input_shape, 100, np.uint8)
        assert all(np.isfinite(output).all() for output in network.run(picture))


def rows_of(text: str) -> dict[str, str]:
    """The rows of the document's table, by the network's name."""
    table = text.split(BEGIN)[1].split(END)[0]
    names = {candidate.name for candidate in CANDIDATES}
    rows = {line.split("|")[1].strip(): line + "\n" for line in table.split("\n") if "|" in line}
    return {name: row for name, row in rows.items() if name in names}


def main() -> None:
    wanted = sys.argv[1:] or [candidate.name for candidate in CANDIDATES]
    made = {c.name: row(c) for c in CANDIDATES if c.name in wanted}
    text = DOCUMENT.read_text(encoding="utf-8")
    rows = {**rows_of(text), **made}
    table = "| network | source | input | layers | tensors compared | outcome |\n"
    table += "|---|---|---|---|---|---|\n"
    table += "".join(rows[c.name] for c in CANDIDATES if c.name in rows)
    before, rest = text.split(BEGIN)
    after = rest.split(END)[1]
    DOCUMENT.write_text(before + BEGIN + "\n" + table + "\n" + END + after, encoding="utf-8")


if __name__ == "__main__":
    main()
