"""Records of the layers that compute each value by itself."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any, ClassVar

import numpy as np

from ..record_io import RecordReader, RecordWriter
from ..tag_tree import ModelFileError
from .layer import Layer


@dataclass(kw_only=True, eq=False)
class BatchNorm(Layer):
    """(x - mean) / divisor, one value per channel each.

    `divisor` is stored as "var", but it is what the values are divided by: the square root of the
    variance plus its epsilon, not the variance. `epsilon` and `fraction` change nothing here.
    """

    keyword: ClassVar[str] = "bn"

    mean: np.ndarray
    divisor: np.ndarray
    epsilon: float = 0.0
    fraction: float = 0.0

    def write_keys(self, writer: RecordWriter) -> None:
        writer.float("maf", self.fraction)
        writer.float("eps", self.epsilon)
        writer.int("is_global", 1)
        writer.int("channels", np.size(self.mean))
        writer.vector("mean", self.mean)
        writer.vector("var", self.divisor)

    @classmethod
    def read_keys(cls, reader: RecordReader) -> dict[str, Any]:
        return {
            "fraction": reader.float("maf"),
            "epsilon": reader.float("eps"),
            "mean": reader.vector("mean"),
            "divisor": reader.vector("var"),
        }


@dataclass(kw_only=True, eq=False)
class Scale(Layer):
    """x * scales + bias, one value per channel each."""

    keyword: ClassVar[str] = "scale"

    scales: np.ndarray
    bias: np.ndarray | None = None

    def write_keys(self, writer: RecordWriter) -> None:
        writer.int("has_bias", self.bias is not None)
        writer.vector("scales", self.scales)
        if self.bias is not None:
            writer.vector("bias", self.bias)

    @classmethod
    def read_keys(cls, reader: RecordReader) -> dict[str, Any]:
        return {"scales": reader.vector("scales"), "bias": reader.bias()}


@dataclass(kw_only=True, eq=False)
class Relu(Layer):
    """The larger of x and x * negative_slope."""

    keyword: ClassVar[str] = "relu"

    negative_slope: float = 0.0

    def write_keys(self, writer: RecordWriter) -> None:
        writer.float("negative_slope", self.negative_slope)

    @classmethod
    def read_keys(cls, reader: RecordReader) -> dict[str, Any]:
        return {"negative_slope": reader.float("negative_slope")}


@dataclass(kw_only=True, eq=False)
class PRelu(Layer):
    """ReLU with one learned slope per channel. `channel_shared` is stored and changes nothing."""

    keyword: ClassVar[str] = "prelu"

    slopes: np.ndarray
    channel_shared: bool = False

    def write_keys(self, writer: RecordWriter) -> None:
        writer.int("channel_shared", self.channel_shared)
        writer.vector("filler", self.slopes)

    @classmethod
    def read_keys(cls, reader: RecordReader) -> dict[str, Any]:
        return {
            "channel_shared": reader.flag("channel_shared"),
            "slopes": reader.vector("filler"),
        }


@dataclass(kw_only=True, eq=False)
class Power(Layer):
    """(x * scale + shift) to the power of `power`, when the layer works in place.

    With a name of its own for the output only the last step that differs from the identity counts.
    In a file an absent key means 0, not 1.
    """

    keyword: ClassVar[str] = "power"

    power: float = 1.0
    scale: float = 1.0
    shift: float = 0.0

    def write_keys(self, writer: RecordWriter) -> None:
        writer.float("power", self.power)
        writer.float("scale", self.scale)
        writer.float("shift", self.shift)

    @classmethod
    def read_keys(cls, reader: RecordReader) -> dict[str, Any]:
        return {
            "power": reader.float("power"),
            "scale": reader.float("scale"),
            "shift": reader.float("shift"),
        }


@dataclass(kw_only=True, eq=False)
class EltWise(Layer):
    """All inputs, of equal shape, combined element by element: "sum", "max" or "prod".

    The processor computes sums only.
    """

    keyword: ClassVar[str] = "eltwise"
    OPERATIONS: ClassVar[tuple[str, ...]] = ("sum", "max", "prod")

    operation: str = "sum"

    def __post_init__(self) -> None:
        if self.operation not in self.OPERATIONS:
            raise ModelFileError(f"unknown element-wise operation {self.operation!r}")

    def write_keys(self, writer: RecordWriter) -> None:
        writer.text("operation", self.operation)

    @classmethod
    def read_keys(cls, reader: RecordReader) -> dict[str, Any]:
        # Kept: any other text means the maximum, for which the engine prints a line.
        operation = reader.text("operation")
        return {"operation": operation if operation in cls.OPERATIONS else "max"}
