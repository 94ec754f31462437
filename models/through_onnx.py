"""Takes a trained demo model the way of anybody's network: PyTorch, ONNX, `ravu.convert`.

    PYTHONPATH=build/dev/python build/venv/bin/python3 models/through_onnx.py signs out.ravu

The weights come from the committed model file; what is written must compute the same, and
test_through_onnx.py checks that it does.
"""

from __future__ import annotations

import json
import sys
import tempfile
from pathlib import Path

import numpy as np
import torch
from ravu.convert import Options, Recipe, convert
from ravu.model_file import Model
from torch import nn

FOLDER = Path(__file__).resolve().parent
BYTES = Recipe(range=1.0)
"""Both networks scale their pixels themselves."""


def planes(kernels: np.ndarray) -> torch.Tensor:
    """Interleaved kernels in PyTorch's order."""
    return torch.from_numpy(np.float32(kernels).transpose(0, 3, 1, 2).copy())


def normalise_by(norm: nn.BatchNorm2d, gain: np.ndarray, shift: np.ndarray) -> None:
    """Make a batch normalisation that multiplies and shifts."""
    norm.running_var.fill_(1 - norm.eps)
    norm.weight.data = torch.from_numpy(np.float32(gain))
    norm.bias.data = torch.from_numpy(np.float32(shift))


def characters(model: Model, folder: Path) -> tuple[Path, Options]:
    """Export the character classifier. Returns its ONNX file and how to convert it."""
    from network import PIXEL_SCALE, Network

    network = Network(model.data_mean[0, 0])
    stored = [layer for layer in model.layers if layer.keyword == "conv"]
    for i, layer in enumerate(stored):
        scale = PIXEL_SCALE if i == 0 else 1.0
        network.convolutions[i].weight.data = planes(layer.kernels / scale)
        normalise_by(network.norms[i], np.ones(layer.num_kernels), layer.bias)
    dense = next(layer for layer in model.layers if layer.keyword == "neuron")
    channels = stored[-1].num_kernels
    side = int((dense.weights.shape[1] // channels) ** 0.5)
    rows = dense.weights.reshape(-1, side, side, channels).transpose(0, 3, 1, 2)
    network.classify.weight.data = torch.from_numpy(rows.reshape(len(rows), -1).copy())
    network.classify.bias.data = torch.from_numpy(dense.bias)
    whole = nn.Sequential(network, nn.Softmax(dim=1))
    path = export(whole, model.input_size, folder, ["probability"])
    return path, Options(recipe=BYTES, labels=model.labels)


class Heads(nn.Module):
    """The sign detector up to its heads, in the order of HEADS."""

    def __init__(self, network: nn.Module, heads: list[nn.Module]) -> None:
        super().__init__()
        self.network, self.found = network, []
        for head in heads:
            head.register_forward_hook(lambda module, given, result: self.found.append(result))

    def forward(self, pixels: torch.Tensor) -> tuple[torch.Tensor, ...]:
        self.found.clear()
        self.network(pixels)
        return tuple(self.found)


def signs(model: Model, folder: Path) -> tuple[Path, Options]:
    """Export the sign detector, and describe its heads."""
    from network import MAPS, PIXEL_SCALE, PRIORS_PER_CELL, VARIANCES, Network

    network = Network()
    layers = {(layer.keyword, layer.outputs[0]): layer for layer in model.layers}
    for i, name in enumerate(network.convolutions):
        layer = layers["conv", name]
        scale = PIXEL_SCALE if i == 0 else 1.0
        network.convolutions[name].weight.data = planes(layer.kernels / scale)
        if layer.bias is not None:
            normalise_by(network.norms[name], np.ones(layer.num_kernels), layer.bias)
        else:
            norm, factors = layers["bn", name], layers["scale", name]
            gain = factors.scales / norm.divisor
            normalise_by(network.norms[name], gain, factors.bias - norm.mean * gain)
    maps, names, heads = [], [], []
    for name, _, smallest, largest in MAPS:
        for kind, found, units in (
            ("location", network.locations, np.tile(VARIANCES, PRIORS_PER_CELL)),
            ("score", network.scores, 1.0),
        ):
            layer = layers["conv", f"{name}_{kind}"]
            units = np.broadcast_to(np.float32(units), layer.bias.shape)
            found[name].weight.data = planes(layer.kernels / units[:, None, None, None])
            found[name].bias.data = torch.from_numpy(np.float32(layer.bias / units))
            names.append(f"{name}_{kind}")
            heads.append(found[name])
        maps.append(
            {
                "locations": f"{name}_location",
                "scores": f"{name}_score",
                "min_size": smallest,
                "max_size": largest,
                "aspect_ratios": list(layers["priorbox", f"{name}_priors"].aspect_ratios),
            }
        )
    output = layers["detectionout", "detections"]
    description = {
        "classes": output.num_classes,
        "maps": maps,
        "variances": VARIANCES,
        "confidence_threshold": output.confidence_threshold,
        "nms_threshold": output.nms_threshold,
        "top_k": output.top_k,
        "keep_top_k": output.keep_top_k,
    }
    (folder / "heads.json").write_text(json.dumps(description))
    path = export(Heads(network, heads), model.input_size, folder, names)
    return path, Options(recipe=BYTES, labels=model.labels, ssd=folder / "heads.json")


def export(network: nn.Module, size: int, folder: Path, outputs: list[str]) -> Path:
    path = folder / "source.onnx"
    pixels = torch.zeros(1, 3, size, size)
    torch.onnx.export(network.eval(), pixels, str(path), opset_version=13, output_names=outputs)
    return path


def main() -> None:
    name, destination = sys.argv[1:]
    sys.path.insert(0, str(FOLDER / name))
    model = Model.read(FOLDER / name / f"{name}.ravu")
    with tempfile.TemporaryDirectory() as folder:
        path, options = {"characters": characters, "signs": signs}[name](model, Path(folder))
        report = convert(path, destination, options)
    print(f"{len(report.differences)} tensors, worst {report.differences[0].relative:.1e}")


if __name__ == "__main__":
    main()
