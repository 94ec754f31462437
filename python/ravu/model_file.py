"""Model files: the network record, and everything that is needed to build and read one.

    model = Model(input_size=32, image_size=32, input_channels=3, labels=["cat", "dog"])
    model.append(Conv(kernels=kernels, bias=bias, padding=1), "conv1")
    model.append(Relu(), "conv1")
    model.append(FullyConnected(weights=weights, bias=bias), "score")
    model.append(Softmax(), "probability")
    model.write("pets.ravu")

Weights are numpy arrays in the engine's own orders, which each layer's description gives.
"""

from __future__ import annotations

import json
import os
import secrets
from collections.abc import Sequence
from dataclasses import dataclass, field
from pathlib import Path

import numpy as np

from . import tag_tree
from .outline import CARD_KEY, card_of
from .record_io import RecordReader, RecordWriter
from .records import (
    LAYER_CLASSES,
    BatchNorm,
    Concat,
    Conv,
    DetectionOutput,
    EltWise,
    Flatten,
    FullyConnected,
    GroupedConv,
    L2Norm,
    Layer,
    Lrn,
    Permute,
    Pool,
    Power,
    PRelu,
    PriorBox,
    Relu,
    Reshape,
    Scale,
    Softmax,
    UnknownLayer,
    read_layer,
)
from .tag_tree import ModelFileError
from .tensor_record import read_tensor, write_tensor

__all__ = [
    "LAYER_CLASSES",
    "BatchNorm",
    "Concat",
    "Conv",
    "DetectionOutput",
    "EltWise",
    "Flatten",
    "FullyConnected",
    "GroupedConv",
    "L2Norm",
    "Layer",
    "Lrn",
    "Model",
    "ModelFileError",
    "PRelu",
    "Permute",
    "Pool",
    "Power",
    "PriorBox",
    "Relu",
    "Reshape",
    "Scale",
    "Softmax",
    "UnknownLayer",
    "read_tensor",
    "write_tensor",
]

PLANAR = "BCHW"
INTERLEAVED = "BHWC"


@dataclass(kw_only=True, eq=False)
class Model:
    """The network record: the root of a model file.

    Images are square, and channels are innermost unless `layout` is "BCHW".

    input_size:     rows and columns of the network's input, in pixels
    image_size:     rows and columns that the layers see; when it differs from `input_size`, the
                    engine cuts the centre out of each input
    input_channels: values per pixel
    data_mean:      the mean image, (input_size, input_size, input_channels) or anything that
                    broadcasts to it such as one value per channel; None for no mean. A planar
                    file's is (input_channels, input_size, input_size), in full
    need_crop:      False switches off both the crop and the subtraction of the mean. None leaves
                    the key out, which means True
    need_quant:     whether convolution and fully connected tensors are stored quantised
    labels:         the names of the classes, in the order of the network's scores
    card:           what the file says about itself; the engine does not look at it
    """

    input_size: int
    image_size: int
    input_channels: int
    input_name: str = "data"
    layout: str = INTERLEAVED
    data_mean: np.ndarray | None = None
    need_crop: bool | None = None
    need_quant: bool = False
    layers: list[Layer] = field(default_factory=list)
    labels: list[str] = field(default_factory=list)
    card: dict[str, object] | None = None

    def append(self, layer: Layer, output: str, inputs: str | Sequence[str] | None = None) -> str:
        """Add a layer that writes the Blob `output`, and return that name.

        Without `inputs` it reads what the layer before it wrote, or the network's input. A layer
        that writes a name it reads works in place.
        """
        if inputs is None:
            inputs = self.layers[-1].outputs[-1] if self.layers else self.input_name
        layer.inputs = [inputs] if isinstance(inputs, str) else list(inputs)
        layer.outputs = [output]
        self.layers.append(layer)
        return output

    def to_bytes(self) -> bytes:
        """The whole file. Keys stand in the order of the engine's own writer."""
        layout = int(self.layout == PLANAR)
        writer = RecordWriter(layout=layout, quantise=self.need_quant)
        if self.data_mean is not None:
            image = self._mean_image()
            size = self.input_size
            writer.tensor("data_mean", image.reshape(1, size, size, self.input_channels))
        writer.text("layout", PLANAR if layout else INTERLEAVED)
        flags = {"layout": layout, "quantise": self.need_quant}
        writer.element("layers", tag_tree.list_of(l.to_element(**flags) for l in self.layers))
        writer.texts("label_names", self.labels)
        writer.text("input_name", self.input_name)
        writer.int("need_quant", self.need_quant)
        writer.int("input_size", self.input_size)
        writer.int("image_size", self.image_size)
        writer.int("input_channel_num", self.input_channels)
        if self.need_crop is not None:
            writer.int("need_crop", self.need_crop)
        if self.card is not None:
            writer.text(CARD_KEY, json.dumps(self.card, indent=1))
        return writer.to_element().to_bytes()

    def write(self, path: str | os.PathLike[str]) -> None:
        """Write the file beside its destination, then rename it: no half file is left there, under
        whatever name. Raises `OSError`; an existing file then stays."""
        path = Path(path)
        data = self.to_bytes()
        partial = path.with_name(f"{path.name}.{secrets.token_hex(8)}.partial")
        try:
            with open(partial, "xb") as file:
                file.write(data)
            partial.replace(path)
        except BaseException:
            partial.unlink(missing_ok=True)
            raise

    @classmethod
    def from_bytes(cls, data: bytes) -> Model:
        """Read a whole file's bytes. Raises `ModelFileError`, and nothing else, for damaged ones.

        Quantised tensors come back as the floats that they stand for.
        """
        reader = RecordReader(tag_tree.parse(data), "network")
        need_quant = reader.flag("need_quant", False)
        layers = [
            read_layer(element, f"layer {i}", quantised=need_quant)
            for i, element in enumerate(reader.items("layers"))
        ]
        model = cls(
            layout=PLANAR if reader.text("layout", "") == PLANAR else INTERLEAVED,
            input_size=reader.int("input_size"),
            image_size=reader.int("image_size"),
            input_channels=reader.int("input_channel_num"),
            input_name=reader.text("input_name"),
            need_crop=reader.flag("need_crop") if "need_crop" in reader else None,
            need_quant=need_quant,
            layers=layers,
            labels=reader.texts("label_names"),
            card=card_of(reader),
        )
        if "data_mean" in reader:
            model.data_mean = model._checked_mean(reader.tensor("data_mean"))
        return model

    @classmethod
    def read(cls, path: str | os.PathLike[str]) -> Model:
        """Read a file. Raises `ModelFileError` for a damaged, `OSError` for an unreadable one."""
        return cls.from_bytes(Path(path).read_bytes())

    def _mean_shape(self) -> tuple[int, int, int]:
        size, channels = self.input_size, self.input_channels
        return (channels, size, size) if self.layout == PLANAR else (size, size, channels)

    def _mean_image(self) -> np.ndarray:
        try:
            return np.broadcast_to(np.asarray(self.data_mean, np.float32), self._mean_shape())
        except ValueError:
            raise ModelFileError(
                f"a mean of shape {np.shape(self.data_mean)} for an input of {self._mean_shape()}"
            ) from None

    def _checked_mean(self, stored: np.ndarray) -> np.ndarray:
        """The mean in the input's shape: its own dims do not count, only its values do."""
        shape = self._mean_shape()
        count = int(np.prod(shape, dtype=object))
        if min(shape) < 0 or stored.size < count:
            raise ModelFileError(f'network: "data_mean" holds {stored.size} values, not {count}')
        return stored.ravel()[:count].reshape(shape)
