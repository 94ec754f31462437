"""Records of the layers that move or relabel values."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any, ClassVar

from ..record_io import RecordReader, RecordWriter
from ..tag_tree import ModelFileError
from .layer import Layer


@dataclass(kw_only=True, eq=False)
class Concat(Layer):
    """The channels of all inputs behind each other."""

    keyword: ClassVar[str] = "concat"


@dataclass(kw_only=True, eq=False)
class Flatten(Layer):
    """(N, H, W, C) becomes (N, 1, 1, H * W * C), values in the same order."""

    keyword: ClassVar[str] = "flatten"


@dataclass(kw_only=True, eq=False)
class Reshape(Layer):
    """A new shape for the same values: entries of `dims` above 0 replace a dimension.

    `inferred_axis` (-1: none) becomes the input's count divided by the product of those entries.
    """

    keyword: ClassVar[str] = "reshape"

    dims: Sequence[int]
    inferred_axis: int = -1
    constant_count: int = 0

    def __post_init__(self) -> None:
        _need_four(self.dims, "dims")

    def write_keys(self, writer: RecordWriter) -> None:
        writer.int("constant_count", self.constant_count)
        writer.int("inferred_axis", self.inferred_axis)
        writer.ints("dims", self.dims)

    @classmethod
    def read_keys(cls, reader: RecordReader) -> dict[str, Any]:
        return {
            "constant_count": reader.int("constant_count"),
            "inferred_axis": reader.int("inferred_axis"),
            "dims": reader.ints("dims", 4),
        }


@dataclass(kw_only=True, eq=False)
class Permute(Layer):
    """The values of each image in another order of axes; the Blob keeps its shape.

    Output axis i is input axis order[i], with batch 0, row 1, column 2 and channel 3.
    """

    keyword: ClassVar[str] = "permute"

    order: Sequence[int]
    need_permute: bool = True

    def __post_init__(self) -> None:
        _need_four(self.order, "order")

    def write_keys(self, writer: RecordWriter) -> None:
        writer.int("need_permute", self.need_permute)
        writer.ints("permute_order", self.order)

    @classmethod
    def read_keys(cls, reader: RecordReader) -> dict[str, Any]:
        return {
            "need_permute": reader.flag("need_permute"),
            "order": reader.ints("permute_order", 4),
        }


def _need_four(values: Sequence[int], name: str) -> None:
    if len(values) != 4:
        raise ModelFileError(f"{name} has {len(values)} entries, not 4")
