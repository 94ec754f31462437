"""Reading and writing the keys of one dictionary, one line per key.

`RecordWriter` collects keys in the order in which they are given; `RecordReader` fetches typed
values and says which key of which record is missing or damaged.
"""

from __future__ import annotations

from collections.abc import Callable, Iterable
from typing import Any

import numpy as np

from . import tag_tree
from .tag_tree import Element, ModelFileError
from .tensor_record import read_tensor, write_tensor

_REQUIRED = object()


class RecordWriter:
    """Collects the keys of one dictionary. `layout` and `quantise` apply to its tensors."""

    def __init__(self, *, layout: int = 0, quantise: bool = False):
        self.layout = layout
        self.quantise = quantise
        self._pairs: list[tuple[str, Element]] = []

    def element(self, key: str, value: Element) -> None:
        self._pairs.append((key, value))

    def text(self, key: str, value: str) -> None:
        self.element(key, tag_tree.string(value))

    def int(self, key: str, value: int) -> None:
        self.element(key, tag_tree.integer(value))

    def float(self, key: str, value: float) -> None:
        self.element(key, tag_tree.float32(value))

    def tensor(self, key: str, values: np.ndarray, *, quantisable: bool = False) -> None:
        quantise = quantisable and self.quantise
        self.element(key, write_tensor(values, layout=self.layout, quantise=quantise))

    def vector(self, key: str, values: np.ndarray, *, quantisable: bool = False) -> None:
        """A tensor of one value per channel: dims (1, 1, 1, channels)."""
        self.tensor(key, np.reshape(values, (1, 1, 1, -1)), quantisable=quantisable)

    def ints(self, key: str, values: Iterable[int]) -> None:
        self.element(key, tag_tree.small_int_array(values))

    def floats(self, key: str, values: Iterable[float]) -> None:
        self.element(key, tag_tree.small_float_array(values))

    def texts(self, key: str, values: Iterable[str]) -> None:
        self.element(key, tag_tree.list_of(tag_tree.string(value) for value in values))

    def nested(self, key: str, **values: int) -> None:
        """A dictionary of integers, such as a layer's "spec"."""
        pairs = ((name, tag_tree.integer(value)) for name, value in values.items())
        self.element(key, tag_tree.dictionary(pairs))

    def to_element(self) -> Element:
        return tag_tree.dictionary(self._pairs)


class RecordReader:
    """Typed access to the values of one dictionary.

    A key without a `default` is required. Every failure is a `ModelFileError` that begins with
    `name`, what the record is called in messages. `quantised` applies to its quantisable tensors.
    """

    def __init__(self, element: Element, name: str, *, quantised: bool = False):
        self.name = name
        self.quantised = quantised
        try:
            self._values = tag_tree.lookup(element)
        except ModelFileError as error:
            raise ModelFileError(f"{name}: {error}") from None

    def __contains__(self, key: str) -> bool:
        return key in self._values

    def read(self, key: str, convert: Callable[[Element], Any], default: Any = _REQUIRED) -> Any:
        """The value of `key` passed through `convert`, or `default` where the key is absent."""
        if key not in self._values:
            if default is _REQUIRED:
                raise ModelFileError(f'{self.name}: "{key}" is missing')
            return default
        try:
            return convert(self._values[key])
        except ModelFileError as error:
            raise ModelFileError(f'{self.name}: "{key}": {error}') from None

    def element(self, key: str) -> Element:
        return self.read(key, lambda value: value)

    def text(self, key: str, default: Any = _REQUIRED) -> str:
        return self.read(key, tag_tree.to_text, default)

    def int(self, key: str, default: Any = _REQUIRED) -> int:
        return self.read(key, tag_tree.to_int, default)

    def flag(self, key: str, default: Any = _REQUIRED) -> bool:
        return bool(self.int(key, default))

    def float(self, key: str, default: Any = 0.0) -> float:
        """Floats are optional throughout the format, and 0 where they are absent."""
        return self.read(key, tag_tree.to_float, default)

    def tensor(self, key: str, *, quantisable: bool = False) -> np.ndarray:
        quantised = quantisable and self.quantised
        return self.read(key, lambda value: read_tensor(value, quantised=quantised))

    def vector(self, key: str, *, quantisable: bool = False) -> np.ndarray:
        """A tensor's values in one axis."""
        return self.tensor(key, quantisable=quantisable).ravel()

    def bias(self, *, quantisable: bool = False) -> np.ndarray | None:
        """The vector that is there when "has_bias" is not 0."""
        if not self.flag("has_bias"):
            return None
        return self.vector("bias", quantisable=quantisable)

    def floats(self, key: str) -> list[float]:
        return self.read(key, tag_tree.to_small_floats)

    def ints(self, key: str, count: int) -> list[int]:
        return self.read(key, lambda value: tag_tree.to_small_ints(value, count))

    def texts(self, key: str) -> list[str]:
        """A list of strings; an absent list is an empty one."""
        items = self.read(key, tag_tree.children, [])
        return [tag_tree.to_text(item) for item in items]

    def items(self, key: str) -> list[Element]:
        return self.read(key, tag_tree.children)

    def nested(self, key: str) -> RecordReader:
        return RecordReader(self.element(key), f'{self.name}: "{key}"')
