"""Builds the engine's layers: names, who may overwrite what, and what one layer can absorb.

The profile that all layers keep to: interleaved, every optional key written, names unique, nothing
but what the processor computes.
"""

from __future__ import annotations

from dataclasses import replace
from typing import Any

import numpy as np

from ..model_file import (
    Conv,
    Flatten,
    FullyConnected,
    GroupedConv,
    Layer,
    Model,
    PRelu,
    Relu,
    Scale,
)
from .geometry import Placement, aligner
from .graph import Refused
from .values import Dims, Value, image_shape

WITH_WEIGHTS = (Conv, GroupedConv, FullyConnected)


class Builder:
    """Collects layers while the source's nodes are mapped in their order.

    model:   what is being built
    visible: source tensors whose values still stand in a tensor of the engine after a run
    notes:   what one mapping function leaves for another, by the tensor that it is about
    """

    def __init__(self, model: Model, uses: dict[str, int], outputs: list[str]) -> None:
        self.model = model
        self.values: dict[str, Value] = {}
        self.visible: dict[str, Value] = {}
        self.notes: dict[str, Any] = {}
        self._uses = dict(uses)
        self._outputs = set(outputs)
        self._names = {model.input_name}
        self._lender: dict[str, str] = {}
        self._dims: dict[str, Dims] = {}
        self._writers: dict[str, list[Layer]] = {}

    # Source tensors

    def bind(self, name: str, value: Value, *, visible: bool = True) -> None:
        """The source tensor `name` is `value`."""
        self.values[name] = value
        if visible and not value.pending:
            self.visible[name] = value

    def consume(self, names: list[str]) -> None:
        """A node is about to read these: they have one reader less to come."""
        for name in names:
            if name in self._uses:
                self._uses[name] -= 1

    def is_output(self, name: str) -> bool:
        return name in self._outputs

    def _root(self, blob: str) -> str:
        while blob in self._lender:
            blob = self._lender[blob]
        return blob

    def _may_overwrite(self, blob: str) -> bool:
        """Whether no reader to come wants what the blob holds now."""
        root = self._root(blob)
        if root == self.model.input_name:
            return False
        return not any(
            self._uses.get(name, 0) > 0 and self._root(value.blob) == root
            for name, value in self.values.items()
        )

    def _overwritten(self, blob: str) -> None:
        root = self._root(blob)
        gone = [n for n, value in self.visible.items() if self._root(value.blob) == root]
        for name in gone:
            del self.visible[name]

    def hide(self, blobs: set[str]) -> None:
        """These hold something else than the source's tensors."""
        gone = [name for name, value in self.visible.items() if value.blob in blobs]
        for name in gone:
            del self.visible[name]

    # Layers

    def name(self, wanted: str) -> str:
        """A name that nothing has yet, made of printable characters."""
        plain = "".join(c if c.isascii() and c.isprintable() else "_" for c in wanted)[:200]
        found, number = plain or "tensor", 1
        while found in self._names:
            number += 1
            found = f"{plain}_{number}"
        self._names.add(found)
        return found

    def add(self, layer: Layer, inputs: list[Value] | Value, wanted: str, dims: Dims) -> str:
        """Append a layer that writes a new blob, and return the blob's name."""
        inputs = [inputs] if isinstance(inputs, Value) else inputs
        blob = self.name(wanted)
        self.model.append(layer, blob, [value.blob for value in inputs])
        self._dims[blob] = dims
        self._writers[blob] = [layer]
        return blob

    def add_view(self, layer: Layer, value: Value, wanted: str, dims: Dims) -> str:
        """Append a layer whose output shows its input's storage."""
        blob = self.add(layer, value, wanted, dims)
        self._lender[blob] = value.blob
        self._writers[blob] = []
        return blob

    def in_place(self, layer: Layer, value: Value) -> Value:
        """Append a layer that overwrites its input, copied first where somebody still reads it."""
        value = self.owned(value)
        self._overwritten(value.blob)
        self.model.append(layer, value.blob, value.blob)
        self._writers[self._root(value.blob)].append(layer)
        return value

    def owned(self, value: Value) -> Value:
        """The value in a blob that may be overwritten."""
        value = self.settled(value)
        if self._may_overwrite(value.blob):
            return value
        return self.copy(value, value.blob + "_copy")

    def copy(self, value: Value, wanted: str) -> Value:
        """The same values in a blob of their own: a scale by one."""
        ones = np.ones(value.dims[3], np.float32)
        return replace(value, blob=self.add(Scale(scales=ones), value, wanted, value.dims))

    def writer(self, blob: str) -> Layer | None:
        """The last layer that writes a blob; None for the input."""
        writers = [layer for layer in self.model.layers if blob in layer.outputs]
        return writers[-1] if writers else None

    # What is pending

    def settled(self, value: Value) -> Value:
        """The value with nothing pending."""
        pad, value = value.pad, replace(value, pad=None)
        if value.select is not None:
            value = self._selected(value)
        elif value.affine is not None:
            scale, shift = value.affine
            layer = Scale(scales=scale, bias=shift)
            blob = self.add(layer, value, value.blob + "_scaled", value.dims)
            value = replace(value, blob=blob, affine=None)
        return value if pad is None else self.aligned(value, pad)

    def _selected(self, value: Value) -> Value:
        assert value.select is not None
        chosen = value.select.ravel()
        n, h, w, c = value.dims
        kernels = np.zeros((chosen.size, 1, 1, c), np.float32)
        scale, shift = value.affine or (np.ones(chosen.size), None)
        kernels[np.arange(chosen.size), 0, 0, chosen] = scale
        dims = (n, h, w, int(chosen.size))
        blob = self.add(Conv(kernels=kernels, bias=shift), value, value.blob + "_selected", dims)
        return replace(value, blob=blob, dims=dims, select=None, affine=None)

    def aligned(self, value: Value, change: tuple[int, int, int, int]) -> Value:
        """The value with rows and columns of zeros added, or cut: top, left, bottom, right.

        Raises `Refused` where height and width change by different amounts.
        """
        n, h, w, c = value.dims
        placement = aligner(change)
        kernels = np.zeros((1, placement.size, placement.size, 1), np.float32)
        kernels[0, placement.top, placement.left, 0] = 1
        layer = GroupedConv(kernels=[kernels] * c, padding=placement.padding)
        top, left, bottom, right = change
        dims = (n, h + top + bottom, w + left + right, c)
        return replace(value, blob=self.add(layer, value, value.blob + "_aligned", dims), dims=dims)

    # Arithmetic that layers with weights absorb

    def affine(self, value: Value, scale: np.ndarray, shift: np.ndarray, wanted: str) -> Value:
        """value * scale + shift, one of each per channel of the blob."""
        value = replace(self.settled(value), at_least_zero=False)
        scale = np.broadcast_to(np.asarray(scale, np.float64), (value.dims[3],))
        shift = np.broadcast_to(np.asarray(shift, np.float64), (value.dims[3],))
        writers = self._writers.get(value.blob, [])
        free = self._may_overwrite(value.blob)
        if free and writers and can_absorb(writers[-1], value.dims[3]):
            absorb(writers[-1], scale, shift)
            self._overwritten(value.blob)
            return value
        layer = Scale(scales=np.float32(scale), bias=np.float32(shift) if shift.any() else None)
        if free and not self.is_output(wanted):
            return self.in_place(layer, value)
        return replace(value, blob=self.add(layer, value, wanted, value.dims))

    def absorb_for_good(self, layer: Conv, scale: np.ndarray, shift: np.ndarray) -> None:
        """Multiply and shift a layer's outputs for one reader who undoes it: nothing that holds
        them, or is made of them, is the source's any more."""
        absorb(layer, scale, shift)
        changed = set(layer.outputs)
        for later in self.model.layers:
            if changed.intersection(later.inputs):
                changed.update(later.outputs)
        self.hide(changed)

    def rectified(self, value: Value, wanted: str, slope: float = 0.0) -> Value:
        """The larger of x and x * slope, for slopes from 0 to 1."""
        value = self.owned(value)
        layer = Relu(negative_slope=slope)
        zero = slope == 0
        if self.is_output(wanted):
            # In place, the network would list the tensor once for each layer that writes it.
            blob = self.add_view(layer, value, wanted, value.dims)
            self._overwritten(value.blob)
            return replace(value, blob=blob, at_least_zero=zero)
        return replace(self.in_place(layer, value), at_least_zero=zero)

    def clipped(self, value: Value, low: float, high: float, wanted: str) -> Value:
        """The value limited to low .. high: low + relu((high - low) - relu(high - x)).

        In this order the first scale is absorbed by the layer with weights before it.
        """
        if np.isfinite(high):
            value = self.rectified(self.affine(value, -1.0, high, ""), "")
            if not np.isfinite(low):
                return self.affine(value, -1.0, high, wanted)
            value = self.affine(value, -1.0, high - low, "")
        elif np.isfinite(low):
            value = self.affine(value, 1.0, -low, "") if low else value
        else:
            return value
        value = self.rectified(value, "" if low else wanted)
        return self.affine(value, 1.0, low, wanted) if low else value

    def sloped(self, value: Value, slopes: np.ndarray, wanted: str) -> Value:
        """x where it is positive, x * slope elsewhere, one slope per channel."""
        value = self.settled(value)
        slopes = np.broadcast_to(np.asarray(slopes, np.float32), (value.dims[3],))
        blob = self.add(PRelu(slopes=slopes), value, wanted, value.dims)
        return replace(value, blob=blob, at_least_zero=bool((slopes <= 0).all()))

    def flat(self, value: Value) -> Value:
        """The value's blob as one pixel: (batch, 1, 1, all)."""
        n, h, w, c = value.dims
        if h == w == 1:
            return value
        dims = (n, 1, 1, h * w * c)
        return replace(
            value,
            blob=self.add_view(Flatten(), value, value.blob + "_flat", dims),
            dims=dims,
            planar=False,
        )

    def convolve(
        self,
        value: Value,
        kernels: np.ndarray,
        bias: np.ndarray | None,
        placement: Placement,
        groups: int,
        wanted: str,
    ) -> Value:
        """A convolution that is already brought into the engine's geometry.

        kernels: (outputs, rows, columns, inputs of one group), the rectangle inside the square
        """
        rows, columns = kernels.shape[1:3]
        square = np.zeros((len(kernels), placement.size, placement.size, kernels.shape[3]))
        row_taps = placement.top + placement.dilation[0] * np.arange(rows)
        column_taps = placement.left + placement.dilation[1] * np.arange(columns)
        square[:, row_taps[:, None], column_taps[None, :]] = kernels
        options = {"stride": placement.stride, "padding": placement.padding}
        square = square.astype(np.float32)
        bias = None if bias is None else np.asarray(bias, np.float32)
        if groups == 1:
            layer: Layer = Conv(kernels=square, bias=bias, **options)
        else:
            biases = None if bias is None else np.split(bias, groups)
            layer = GroupedConv(kernels=np.split(square, groups), biases=biases, **options)
        dims = (value.dims[0], placement.out_height, placement.out_width, len(kernels))
        blob = self.add(layer, value, wanted, dims)
        n, h, w, c = dims
        return Value(blob, dims, (n, c, h, w))


def can_absorb(layer: Layer, channels: int) -> bool:
    if isinstance(layer, Scale):
        return layer.scales.size == channels
    return isinstance(layer, WITH_WEIGHTS)


def absorb(layer: Layer, scale: np.ndarray, shift: np.ndarray) -> None:
    """Multiply and shift the outputs of a layer, one factor and term for each channel."""
    if isinstance(layer, Scale):
        layer.scales = np.float32(layer.scales * scale)
        layer.bias = _moved(layer.bias, scale, shift)
    elif isinstance(layer, FullyConnected):
        layer.weights = np.float32(layer.weights * scale)
        layer.bias = _moved(layer.bias, scale, shift)
    elif isinstance(layer, Conv):
        layer.kernels = np.float32(layer.kernels * scale[:, None, None, None])
        layer.bias = _moved(layer.bias, scale, shift)
    elif isinstance(layer, GroupedConv):
        groups = len(layer.kernels)
        scales, shifts = np.split(scale, groups), np.split(shift, groups)
        biases = layer.biases or [None] * groups
        layer.kernels = [
            np.float32(k * s[:, None, None, None]) for k, s in zip(layer.kernels, scales)
        ]
        layer.biases = [_moved(b, s, t) for b, s, t in zip(biases, scales, shifts)]


def _moved(bias: np.ndarray | None, scale: np.ndarray, shift: np.ndarray) -> np.ndarray:
    return np.float32(shift if bias is None else bias * scale + shift)


def require_image(value: Value, what: str) -> tuple[int, int, int, int]:
    """The source's (batch, channels, height, width). Raises `Refused` for anything else."""
    shape = image_shape(value)
    split = value.select is not None and value.select.ndim > 1
    if not value.planar or split or value.shape != shape:
        raise Refused(
            f"{what} a tensor of shape {value.shape} that is no image",
            advice="only (batch, channels, height, width) can be processed",
        )
    return shape
