"""What all layer records have in common.

Each class of this package has `write_keys` and `read_keys`, one line per key, in the order in which
the keys stand in a file. Blobs are batch, height, width, channels (N, H, W, C); C is innermost.
"""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any, ClassVar

from ..record_io import RecordReader, RecordWriter
from ..tag_tree import Element


@dataclass(kw_only=True, eq=False)
class Layer:
    """What all layers have: the names of the Blobs they read and write.

    A layer that writes the name it reads works in place. `Model.append` fills both lists.
    """

    keyword: ClassVar[str]

    inputs: list[str] = field(default_factory=list)
    outputs: list[str] = field(default_factory=list)

    def to_element(self, *, layout: int = 0, quantise: bool = False) -> Element:
        """The layer's dictionary; `layout` and `quantise` are the network's flags."""
        writer = RecordWriter(layout=layout, quantise=quantise)
        self.write_class(writer)
        self.write_keys(writer)
        writer.texts("output_layers", self.outputs)
        writer.texts("input_layers", self.inputs)
        return writer.to_element()

    def write_class(self, writer: RecordWriter) -> None:
        writer.text("class", self.keyword)

    def write_keys(self, writer: RecordWriter) -> None:
        """Add the keys of this class alone."""

    @classmethod
    def read_keys(cls, reader: RecordReader) -> dict[str, Any]:
        """The fields of this class alone."""
        return {}


@dataclass(kw_only=True, eq=False)
class UnknownLayer(Layer):
    """A record of a class that the engine does not know and leaves out. It is kept as it stands."""

    keyword: str
    record: Element

    def to_element(self, *, layout: int = 0, quantise: bool = False) -> Element:
        return self.record
