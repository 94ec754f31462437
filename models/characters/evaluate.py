"""A plain numpy evaluation of a classifier's model file, to check what was written.

It shares nothing with the training code: layers are computed as their records describe them.
"""

from __future__ import annotations

import sys
from pathlib import Path

import numpy as np

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "python"))
from ravu.model_file import Conv, FullyConnected, Model, Pool, Relu, Softmax  # noqa: E402


def probabilities(model: Model, pixels: np.ndarray) -> np.ndarray:
    """One row of class probabilities per image; `pixels` are N, H, W, C with values 0 to 255."""
    mean = 0.0 if model.data_mean is None or model.need_crop is False else model.data_mean
    blobs = {model.input_name: pixels.astype(np.float64) - mean}
    for layer in model.layers:
        blobs[layer.outputs[0]] = _FORWARD[type(layer)](layer, blobs[layer.inputs[0]])
    return blobs[model.layers[-1].outputs[0]].reshape(len(pixels), -1)


def _convolve(layer: Conv, x: np.ndarray) -> np.ndarray:
    pad, size, step = layer.padding, layer.ksize, layer.stride
    x = np.pad(x, ((0, 0), (pad, pad), (pad, pad), (0, 0)))
    rows, columns = ((extent - size) // step + 1 for extent in x.shape[1:3])
    out = np.zeros((len(x), rows, columns, layer.num_kernels))
    for i in range(size):
        for j in range(size):
            window = x[:, i : i + step * rows : step, j : j + step * columns : step]
            out += window[:, :rows, :columns] @ layer.kernels[:, i, j, :].T
    return out if layer.bias is None else out + layer.bias


def _pool(layer: Pool, x: np.ndarray) -> np.ndarray:
    size, step = layer.size, layer.stride
    rows, columns = (-(-(extent - size) // step) + 1 for extent in x.shape[1:3])
    out = np.empty((len(x), rows, columns, x.shape[3]))
    for i in range(rows):
        for j in range(columns):
            window = x[:, i * step : i * step + size, j * step : j * step + size]
            out[:, i, j] = window.max(axis=(1, 2))
    return out


def _connect(layer: FullyConnected, x: np.ndarray) -> np.ndarray:
    weights = layer.weights.T if layer.weights_transposed else layer.weights
    out = x.reshape(len(x), -1) @ weights
    return out if layer.bias is None else out + layer.bias


def _softmax(layer: Softmax, x: np.ndarray) -> np.ndarray:
    powers = np.exp(x - x.max(axis=-1, keepdims=True))
    return powers / powers.sum(axis=-1, keepdims=True)


def _relu(layer: Relu, x: np.ndarray) -> np.ndarray:
    return np.maximum(x, x * layer.negative_slope)


_FORWARD = {
    Conv: _convolve,
    FullyConnected: _connect,
    Pool: _pool,
    Relu: _relu,
    Softmax: _softmax,
}
