"""The container of the model format: a tree of tagged elements.

An element is an 8-byte header (type, payload length; little-endian) and its payload. What a payload
means is decided by whoever asks for it, as in the engine: types are written carefully and never
checked when reading. Sizes are always checked, so damaged bytes end in a `ModelFileError`.
"""

from __future__ import annotations

import struct
from collections.abc import Iterable
from dataclasses import dataclass
from enum import IntEnum

import numpy as np

HEADER_BYTES = 8
MAX_LENGTH = 0xFFFFFFFF


class ModelFileError(ValueError):
    """Bytes that are no model, or values that the model format cannot hold."""


class ElementType(IntEnum):
    """The type word of an element's header."""

    STRING = 0
    INTEGER = 1
    FLOAT = 2
    FLOAT_ARRAY = 3
    DICTIONARY = 4
    LIST = 5


@dataclass(frozen=True)
class Element:
    """One element: the type word of its header, and its payload without the header.

    A parsed element borrows its payload from the bytes given to `parse`.
    """

    type: int
    payload: bytes | memoryview

    def to_bytes(self) -> bytes:
        """Header and payload, as they stand in a file."""
        return struct.pack("<II", self.type, len(self.payload)) + self.payload


# Building


def _element(element_type: ElementType, payload: bytes) -> Element:
    if len(payload) > MAX_LENGTH:
        raise ModelFileError(f"an element of {len(payload)} bytes is longer than the format allows")
    return Element(element_type, payload)


def string(text: str) -> Element:
    """Text, zero-filled to a multiple of 4 bytes with at least one zero behind the characters."""
    characters = text.encode("utf-8", "surrogateescape")
    if b"\0" in characters:
        raise ModelFileError(f"text with a zero byte cannot be stored: {text!r}")
    length = (len(characters) + 4) // 4 * 4
    return _element(ElementType.STRING, characters.ljust(length, b"\0"))


def integer(value: int) -> Element:
    """A 32-bit integer; -2^31 to 2^32 - 1, the upper half as its bit pattern."""
    if not -(2**31) <= value < 2**32:
        raise ModelFileError(f"{value} does not fit a 32-bit integer")
    return _element(ElementType.INTEGER, struct.pack("<I", int(value) & 0xFFFFFFFF))


def float32(value: float) -> Element:
    """A single-precision number, rounded to nearest."""
    try:
        return _element(ElementType.FLOAT, struct.pack("<f", value))
    except OverflowError:
        raise ModelFileError(f"{value} does not fit a single-precision number") from None


def float_array(values: np.ndarray) -> Element:
    """Single-precision numbers in C order, whatever the array's shape."""
    return _element(ElementType.FLOAT_ARRAY, np.ascontiguousarray(values, "<f4").tobytes())


def byte_array(values: bytes) -> Element:
    """Raw bytes. They share the string's type word but are not padded."""
    return _element(ElementType.STRING, bytes(values))


def dictionary(pairs: Iterable[tuple[str, Element]]) -> Element:
    """Keys and values in the given order. A key may stand twice; lookups find the last one."""
    parts = [part.to_bytes() for key, value in pairs for part in (string(key), value)]
    return _element(ElementType.DICTIONARY, b"".join(parts))


def list_of(items: Iterable[Element]) -> Element:
    """Elements of any type, one after another."""
    return _element(ElementType.LIST, b"".join(item.to_bytes() for item in items))


def small_int_array(values: Iterable[int]) -> Element:
    """A dictionary element that holds one child without a key: all integers in one payload."""
    child = _element(ElementType.INTEGER, b"".join(integer(value).payload for value in values))
    return _element(ElementType.DICTIONARY, child.to_bytes())


def small_float_array(values: Iterable[float]) -> Element:
    """A dictionary element that holds one child without a key: all floats in one payload."""
    child = _element(ElementType.FLOAT, b"".join(float32(value).payload for value in values))
    return _element(ElementType.DICTIONARY, child.to_bytes())


# Reading


def parse(data: bytes) -> Element:
    """The root dictionary of a whole file. The file ends with the last byte of its payload."""
    view = memoryview(data).toreadonly()
    root, end = _element_at(view, 0)
    if root.type != ElementType.DICTIONARY:
        raise ModelFileError(f"the root element has type {root.type}, not a dictionary's")
    if end != len(view):
        raise ModelFileError(f"{len(view) - end} bytes behind the end of the root element")
    return root


def children(container: Element) -> list[Element]:
    """The elements of a list, in order. For a dictionary: keys and values in turn."""
    view = memoryview(container.payload)
    found, position = [], 0
    while position < len(view):
        child, position = _element_at(view, position)
        found.append(child)
    return found


def lookup(dictionary_element: Element) -> dict[str, Element]:
    """All values of a dictionary by key. Of several pairs with one key the last one counts."""
    elements = children(dictionary_element)
    if len(elements) % 2:
        raise ModelFileError("not enough bytes remaining: the last key has no value")
    return {to_text(key): value for key, value in zip(elements[::2], elements[1::2])}


def to_int(element: Element) -> int:
    """The signed 32-bit integer at the start of the payload."""
    return struct.unpack_from("<i", _at_least(element, 4))[0]


def to_float(element: Element) -> float:
    """The single-precision number at the start of the payload."""
    return struct.unpack_from("<f", _at_least(element, 4))[0]


def to_text(element: Element) -> str:
    """The characters before the first zero byte, or all of them where there is none."""
    return bytes(element.payload).split(b"\0", 1)[0].decode("utf-8", "surrogateescape")


def to_floats(element: Element, count: int | None = None) -> np.ndarray:
    """The first `count` single-precision numbers of the payload (by default all), copied."""
    if count is None:
        count = len(element.payload) // 4
    return np.frombuffer(_at_least(element, 4 * count), "<f4", count).astype(np.float32)


def to_int8(element: Element, count: int) -> np.ndarray:
    """The first `count` bytes of the payload as signed numbers, copied."""
    return np.frombuffer(_at_least(element, count), np.int8, count).copy()


def to_small_ints(element: Element, count: int) -> list[int]:
    """The first `count` integers of a small array's only child."""
    return list(struct.unpack_from(f"<{count}i", _at_least(_only_child(element), 4 * count)))


def to_small_floats(element: Element) -> list[float]:
    """All numbers of a small array's only child."""
    return to_floats(_only_child(element)).tolist()


def _only_child(element: Element) -> Element:
    return _element_at(memoryview(element.payload), 0)[0]


def _at_least(element: Element, count: int) -> bytes | memoryview:
    if len(element.payload) < count:
        raise ModelFileError(f"a value holds {len(element.payload)} bytes where {count} are needed")
    return element.payload


def _element_at(view: memoryview, position: int) -> tuple[Element, int]:
    """The element at `position` and the position behind it; it must end inside `view`."""
    left = len(view) - position
    if left < HEADER_BYTES:
        raise ModelFileError(f"not enough bytes remaining: {left} bytes where a header should be")
    element_type, length = struct.unpack_from("<II", view, position)
    if length > left - HEADER_BYTES:
        raise ModelFileError(
            f"not enough bytes remaining: an element of {length} bytes where "
            f"{left - HEADER_BYTES} are left"
        )
    start = position + HEADER_BYTES
    return Element(element_type, view[start : start + length]), start + length
