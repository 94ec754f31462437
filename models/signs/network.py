"""The detector: a small single-shot network in PyTorch, and its way into a model file."""

from __future__ import annotations

import numpy as np
import torch
from series import INPUT_SIZE
from reference import (  # which makes the ravu package importable
    CENTRE_SIZE,
    BatchNorm,
    Concat,
    Conv,
    DetectionOutput,
    Flatten,
    Model,
    Pool,
    PriorBox,
    Relu,
    Reshape,
    Scale,
    Softmax,
    prior_boxes,
)
from signs import LABELS
from torch import nn

PIXEL_SCALE = 1 / 255

# Each convolution: name, output channels, kernel size, stride, and whether pooling follows.
BACKBONE = (
    ("conv1", 16, 3, 2, False),
    ("conv2", 24, 3, 2, False),
    ("conv3", 48, 3, 1, True),
    ("conv4", 96, 3, 1, False),
    ("conv5", 96, 3, 1, False),
    ("reduce6", 64, 1, 1, False),
    ("conv6", 128, 3, 2, False),
    ("reduce7", 64, 1, 1, False),
    ("conv7", 96, 3, 2, False),
)
# Feature maps that signs are looked for in: name, rows and columns, and the smallest and largest
# side of the signs that each is for, in pixels of the network's input.
MAPS = (("conv5", 16, 16, 28), ("conv6", 8, 28, 50), ("conv7", 4, 50, 80))
ASPECT_RATIOS = (2.0, 0.5)
PRIORS_PER_CELL = 2 + len(ASPECT_RATIOS)
PRIORS = sum(size * size for _, size, _, _ in MAPS) * PRIORS_PER_CELL
# Units in which the network gives positions and sizes in training; the file has them multiplied in.
VARIANCES = (0.1, 0.1, 0.2, 0.2)
# The convolutions whose normalisation stays a layer of its own in the file.
NORMALISED_IN_FILE = ("reduce6", "conv6", "reduce7", "conv7")


class Network(nn.Module):
    """Takes pixels 0 to 255 (N, 3, INPUT_SIZE, INPUT_SIZE).

    Gives locations (N, PRIORS, 4) in units of VARIANCES, and one score per label (N, PRIORS,
    labels), both in the order of the priors: map, row, column, box of the cell.
    """

    def __init__(self) -> None:
        super().__init__()
        self.convolutions, self.norms = nn.ModuleDict(), nn.ModuleDict()
        self.locations, self.scores = nn.ModuleDict(), nn.ModuleDict()
        channels = 3
        wanted = [name for name, *_ in MAPS]
        for name, width, size, stride, _ in BACKBONE:
            self.convolutions[name] = nn.Conv2d(
                channels, width, size, stride, padding=size // 2, bias=False
            )
            self.norms[name] = nn.BatchNorm2d(width)
            channels = width
            if name in wanted:
                boxes = PRIORS_PER_CELL
                self.locations[name] = nn.Conv2d(width, 4 * boxes, 3, padding=1)
                self.scores[name] = nn.Conv2d(width, len(LABELS) * boxes, 3, padding=1)

    def forward(self, pixels: torch.Tensor) -> tuple[torch.Tensor, torch.Tensor]:
        x = pixels * PIXEL_SCALE
        locations, scores = [], []
        for name, _, _, _, pooled in BACKBONE:
            x = torch.relu(self.norms[name](self.convolutions[name](x)))
            if pooled:
                x = nn.functional.max_pool2d(x, 2)
            if name in self.scores:
                locations.append(_per_prior(self.locations[name](x), 4))
                scores.append(_per_prior(self.scores[name](x), len(LABELS)))
        return torch.cat(locations, dim=1), torch.cat(scores, dim=1)


def _per_prior(head: torch.Tensor, values: int) -> torch.Tensor:
    """(N, boxes * values, H, W) as (N, H * W * boxes, values)."""
    return head.permute(0, 2, 3, 1).reshape(len(head), -1, values)


def all_priors() -> np.ndarray:
    """(PRIORS, 4) corners, as fractions of the image."""
    image = (INPUT_SIZE, INPUT_SIZE)
    return np.concatenate(
        [prior_boxes(_prior_layer(low, high), n, n, image) for _, n, low, high in MAPS]
    )


def to_model(network: Network) -> Model:
    """The network as the engine runs it on the processor."""
    model = Model(
        input_size=INPUT_SIZE,
        image_size=INPUT_SIZE,
        input_channels=3,
        need_crop=False,
        labels=list(LABELS),
    )
    for i, (name, _, _, stride, pooled) in enumerate(BACKBONE):
        _append_convolution(model, network, name, stride, PIXEL_SCALE if i == 0 else 1.0)
        if pooled:
            model.append(Pool(size=2, stride=2), f"{name}_pool")
    for name, _, low, high in MAPS:
        _append_head(model, network.locations[name], name, "location", VARIANCES * PRIORS_PER_CELL)
        _append_head(model, network.scores[name], name, "score", 1.0)
        model.append(_prior_layer(low, high), f"{name}_priors", [name, model.input_name])
    for kind in ("location_row", "score_row", "priors"):
        model.append(Concat(), kind, [f"{name}_{kind}" for name, *_ in MAPS])
    model.append(Reshape(dims=(-1, PRIORS, 1, len(LABELS))), "scores", "score_row")
    model.append(Softmax(), "probability")
    model.append(
        DetectionOutput(
            num_classes=len(LABELS),
            code_type=CENTRE_SIZE,
            variance_encoded_in_target=True,
            confidence_threshold=0.05,
            nms_threshold=0.45,
            top_k=100,
            keep_top_k=200,
        ),
        "detections",
        ["location_row", "probability", "priors"],
    )
    return model


def _append_convolution(
    model: Model, network: Network, name: str, stride: int, input_scale: float
) -> None:
    """Convolution, batch normalisation and ReLU, the normalisation folded or as layers."""
    convolution, norm = network.convolutions[name], network.norms[name]
    kernels = _interleaved(convolution) * input_scale
    mean, variance = _numbers(norm.running_mean), _numbers(norm.running_var)
    gain, shift = _numbers(norm.weight), _numbers(norm.bias)
    divisor = np.sqrt(variance + norm.eps)
    padding = convolution.padding[0]
    if name in NORMALISED_IN_FILE:
        model.append(Conv(kernels=kernels, stride=stride, padding=padding), name)
        model.append(BatchNorm(mean=mean, divisor=divisor), name)
        model.append(Scale(scales=gain, bias=shift), name)
    else:
        gain = gain / divisor
        kernels, bias = kernels * gain[:, None, None, None], shift - mean * gain
        model.append(Conv(kernels=kernels, bias=bias, stride=stride, padding=padding), name)
    model.append(Relu(), name)


def _append_head(
    model: Model, head: nn.Conv2d, name: str, kind: str, units: float | tuple[float, ...]
) -> None:
    """A 3 x 3 convolution on a feature map and its values in one row, channel c times units[c]."""
    units = np.broadcast_to(units, head.out_channels)
    kernels = _interleaved(head) * units[:, None, None, None]
    bias = _numbers(head.bias) * units
    model.append(Conv(kernels=kernels, bias=bias, padding=1), f"{name}_{kind}", name)
    model.append(Flatten(), f"{name}_{kind}_row")


def _prior_layer(smallest: int, largest: int) -> PriorBox:
    return PriorBox(
        min_size=(smallest,),
        max_size=(largest,),
        aspect_ratios=ASPECT_RATIOS,
        num_priors=PRIORS_PER_CELL,
        variance=(1.0,),
    )


def _interleaved(convolution: nn.Conv2d) -> np.ndarray:
    """Kernels (output, row, column, input)."""
    return _numbers(convolution.weight).transpose(0, 2, 3, 1)


def _numbers(tensor: torch.Tensor) -> np.ndarray:
    return tensor.detach().numpy().astype(np.float64)
