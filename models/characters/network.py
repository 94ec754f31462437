"""The classifier: a small convolutional network in PyTorch, and its way into a model file."""

from __future__ import annotations

import sys
from pathlib import Path

import numpy as np
import torch
from dataset import INPUT_SIZE
from fonts import LABELS
from torch import nn

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "python"))
from ravu.model_file import Conv, FullyConnected, Model, Pool, Relu, Softmax  # noqa: E402

# Output channels of each convolution, and whether the size is halved behind it.
STAGES = ((24, True), (48, True), (96, False), (96, True))
PIXEL_SCALE = 1 / 64


class Network(nn.Module):
    """Convolutions with batch normalisation, max pooling and one fully connected layer.

    Takes pixels 0 to 255 (N, 3, INPUT_SIZE, INPUT_SIZE) and gives one score per label (N, 36).
    """

    def __init__(self, mean: np.ndarray):
        super().__init__()
        self.register_buffer("mean", torch.tensor(mean, dtype=torch.float32).view(1, 3, 1, 1))
        channels, size = 3, INPUT_SIZE
        self.convolutions, self.norms = nn.ModuleList(), nn.ModuleList()
        for width, halved in STAGES:
            self.convolutions.append(nn.Conv2d(channels, width, 3, padding=1, bias=False))
            self.norms.append(nn.BatchNorm2d(width))
            channels, size = width, size // 2 if halved else size
        self.dropout = nn.Dropout(0.2)
        self.classify = nn.Linear(channels * size * size, len(LABELS))

    def forward(self, pixels: torch.Tensor) -> torch.Tensor:
        x = (pixels - self.mean) * PIXEL_SCALE
        for convolution, norm, (_, halved) in zip(self.convolutions, self.norms, STAGES):
            x = torch.relu(norm(convolution(x)))
            if halved:
                x = nn.functional.max_pool2d(x, 2)
        return self.classify(self.dropout(x.flatten(1)))


def to_model(network: Network) -> Model:
    """The network as the engine runs it.

    Batch normalisation is folded into the convolutions, the pixel scale into the first of them, and
    the mean becomes the model's mean image.
    """
    model = Model(
        input_size=INPUT_SIZE,
        image_size=INPUT_SIZE,
        input_channels=3,
        data_mean=network.mean.numpy().ravel(),
        need_crop=True,
        labels=list(LABELS),
    )
    for i, (_, halved) in enumerate(STAGES):
        kernels, bias = _folded(network.convolutions[i], network.norms[i])
        if i == 0:
            kernels = kernels * PIXEL_SCALE
        name = model.append(Conv(kernels=kernels, bias=bias, padding=1), f"conv{i + 1}")
        model.append(Relu(), name)
        if halved:
            model.append(Pool(size=2, stride=2), f"pool{i + 1}")
    model.append(
        FullyConnected(
            weights=_rows_in_pixel_order(network.classify.weight.detach().numpy()),
            bias=network.classify.bias.detach().numpy(),
            weights_transposed=True,
        ),
        "score",
    )
    model.append(Softmax(), "probability")
    return model


def _folded(convolution: nn.Conv2d, norm: nn.BatchNorm2d) -> tuple[np.ndarray, np.ndarray]:
    """Kernels (output, row, column, input) and bias of both together."""
    kernels = convolution.weight.detach().numpy().astype(np.float64)
    mean, variance = norm.running_mean.numpy(), norm.running_var.numpy().astype(np.float64)
    gain = norm.weight.detach().numpy() / np.sqrt(variance + norm.eps)
    bias = norm.bias.detach().numpy() - mean * gain
    return (kernels * gain[:, None, None, None]).transpose(0, 2, 3, 1), bias


def _rows_in_pixel_order(weights: np.ndarray) -> np.ndarray:
    """Each output's row from channel, row, column order to row, column, channel order."""
    channels = STAGES[-1][0]
    side = int((weights.shape[1] // channels) ** 0.5)
    planes = weights.reshape(-1, channels, side, side)
    return planes.transpose(0, 2, 3, 1).reshape(len(weights), -1)
