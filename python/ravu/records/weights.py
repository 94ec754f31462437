"""Records of the two layers that multiply by matrices: convolution and fully connected."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any, ClassVar

import numpy as np

from .. import tag_tree
from ..record_io import RecordReader, RecordWriter
from ..tag_tree import ModelFileError
from .layer import Layer


@dataclass(kw_only=True, eq=False)
class Conv(Layer):
    """Two-dimensional convolution, square kernels, one stride and one padding for both axes.

    `kernels` has the shape (output channels, kernel rows, kernel columns, input channels); `bias`
    one value per output channel. Both dilations other than 1 only shift the patches: see the
    description of the format before using them. Files of the layout "BCHW" hold planar kernels of
    the shape (input channels, ...): then `num_kernels` and `ksize` must be given.
    """

    keyword: ClassVar[str] = "conv"

    kernels: np.ndarray
    bias: np.ndarray | None = None
    stride: int = 1
    padding: int = 0
    dilation_h: int = 1
    dilation_w: int = 1
    kernels_transposed: bool = False
    num_kernels: int | None = None
    ksize: int | None = None

    def __post_init__(self) -> None:
        self.num_kernels, self.ksize = _kernel_sizes(self.kernels, self.num_kernels, self.ksize)

    def write_keys(self, writer: RecordWriter) -> None:
        _write_kernel_set(writer, self, self.kernels, self.bias, 1)

    @classmethod
    def read_keys(cls, reader: RecordReader) -> dict[str, Any]:
        return {
            "kernels": reader.tensor("kernels", quantisable=True),
            "bias": reader.bias(quantisable=True),
            **_read_geometry(reader),
        }


@dataclass(kw_only=True, eq=False)
class GroupedConv(Layer):
    """Convolution in groups: group i reads the i-th equal share of the input channels.

    `kernels` has one array per group of the shape (output channels of one group, kernel rows,
    kernel columns, input channels of one group); `biases` one array per group, or is None.
    The output channels of group 0 come first. `num_kernels` counts one group's output channels.
    """

    keyword: ClassVar[str] = "gconv"

    kernels: Sequence[np.ndarray]
    biases: Sequence[np.ndarray] | None = None
    stride: int = 1
    padding: int = 0
    dilation_h: int = 1
    dilation_w: int = 1
    kernels_transposed: bool = False
    num_kernels: int | None = None
    ksize: int | None = None

    def __post_init__(self) -> None:
        if len(self.kernels) == 0:
            raise ModelFileError("a grouped convolution needs at least one group")
        if self.biases is not None and len(self.biases) != len(self.kernels):
            raise ModelFileError(f"{len(self.biases)} biases for {len(self.kernels)} groups")
        sizes = _kernel_sizes(self.kernels[0], self.num_kernels, self.ksize)
        self.num_kernels, self.ksize = sizes

    def write_class(self, writer: RecordWriter) -> None:
        writer.int("layers_count", len(self.kernels))
        writer.text("class", self.keyword)

    def write_keys(self, writer: RecordWriter) -> None:
        groups = []
        for i, kernels in enumerate(self.kernels):
            group = RecordWriter(layout=writer.layout, quantise=writer.quantise)
            group.text("class", Conv.keyword)
            bias = None if self.biases is None else self.biases[i]
            _write_kernel_set(group, self, kernels, bias, len(self.kernels))
            groups.append(group.to_element())
        writer.element("layers", tag_tree.list_of(groups))

    @classmethod
    def read_keys(cls, reader: RecordReader) -> dict[str, Any]:
        count, items = reader.int("layers_count"), reader.items("layers")
        if not 1 <= count <= len(items):
            raise ModelFileError(f"{reader.name}: {len(items)} kernel sets where {count} should be")
        groups = [
            RecordReader(item, f"{reader.name}: group {i}", quantised=reader.quantised)
            for i, item in enumerate(items[:count])
        ]
        # Kept: every group carries the geometry, and the last one's counts, its bias flag included.
        biases = [group.bias(quantisable=True) for group in groups]
        if biases[-1] is not None and any(bias is None for bias in biases):
            raise ModelFileError(f"{reader.name}: only some of the groups have a bias")
        return {
            "kernels": [group.tensor("kernels", quantisable=True) for group in groups],
            "biases": None if biases[-1] is None else biases,
            **[_read_geometry(group) for group in groups][-1],
        }


def _kernel_sizes(
    kernels: np.ndarray, num_kernels: int | None, ksize: int | None
) -> tuple[int, int]:
    """The given sizes; those not given are taken from interleaved kernels."""
    if num_kernels is not None and ksize is not None:
        return num_kernels, ksize
    if np.ndim(kernels) != 4 or kernels.shape[1] != kernels.shape[2]:
        raise ModelFileError("kernels must have the shape (outputs, size, size, inputs)")
    return (
        kernels.shape[0] if num_kernels is None else num_kernels,
        kernels.shape[1] if ksize is None else ksize,
    )


def _write_kernel_set(
    writer: RecordWriter,
    layer: Conv | GroupedConv,
    kernels: np.ndarray,
    bias: np.ndarray | None,
    groups: int,
) -> None:
    writer.nested("spec", num_kernels=layer.num_kernels, ksize=layer.ksize, stride=layer.stride)
    writer.tensor("kernels", kernels, quantisable=True)
    writer.int("are_kernels_transposed", layer.kernels_transposed)
    writer.int("has_bias", bias is not None)
    writer.int("dilation_h", layer.dilation_h)
    writer.int("dilation_w", layer.dilation_w)
    if bias is not None:
        writer.vector("bias", bias, quantisable=True)
    writer.int("layers_count", groups)
    writer.int("padding", layer.padding)


def _read_geometry(reader: RecordReader) -> dict[str, Any]:
    spec = reader.nested("spec")
    return {
        "num_kernels": spec.int("num_kernels"),
        "ksize": spec.int("ksize"),
        "stride": spec.int("stride"),
        "kernels_transposed": reader.flag("are_kernels_transposed", False),
        "dilation_h": reader.int("dilation_h", 1),
        "dilation_w": reader.int("dilation_w", 1),
        "padding": reader.int("padding"),
    }


@dataclass(kw_only=True, eq=False)
class FullyConnected(Layer):
    """Each image's whole input (K values in the order H, W, C) times a matrix, plus a bias.

    `weights` has the shape (K, outputs), or (outputs, K) when `weights_transposed` is set. `bias`
    has one value per output. Planar files (layout "BCHW") hold one row per output; then, as for any
    weights of another shape, `num_output` must be given.
    """

    keyword: ClassVar[str] = "neuron"

    weights: np.ndarray
    bias: np.ndarray | None = None
    weights_transposed: bool = False
    num_output: int | None = None

    def __post_init__(self) -> None:
        if self.num_output is None:
            if np.ndim(self.weights) != 2:
                raise ModelFileError("fully connected weights must be a matrix")
            self.num_output = self.weights.shape[0 if self.weights_transposed else 1]

    def write_keys(self, writer: RecordWriter) -> None:
        writer.nested("spec", num_output=self.num_output)
        writer.int("are_weights_transposed", self.weights_transposed)
        writer.tensor("weight", self.weights, quantisable=True)
        writer.int("has_bias", self.bias is not None)
        if self.bias is not None:
            writer.vector("bias", self.bias, quantisable=True)

    @classmethod
    def read_keys(cls, reader: RecordReader) -> dict[str, Any]:
        return {
            "num_output": reader.nested("spec").int("num_output"),
            "weights_transposed": reader.flag("are_weights_transposed", False),
            "weights": _matrix(reader.tensor("weight", quantisable=True)),
            "bias": reader.bias(quantisable=True),
        }


def _matrix(tensor: np.ndarray) -> np.ndarray:
    """The two axes of a tensor whose other axes are 1; other tensors as they are."""
    return tensor.reshape(tensor.shape[:2]) if tensor.shape[2:] == (1, 1) else tensor
