"""Tensor records: a shape and its values, as plain floats or quantised to one byte each.

Quantised values are cut into blocks of 128, each with an offset and a step of its own:
value = byte * step + mean. All arithmetic here is single precision, step by step, so that the same
floats always give the same bytes as the engine's own writer.
"""

from __future__ import annotations

import math

import numpy as np

from .tag_tree import (
    Element,
    ModelFileError,
    byte_array,
    children,
    dictionary,
    float_array,
    integer,
    list_of,
    lookup,
    to_floats,
    to_int,
    to_int8,
)

BLOCK_SIZE = 128
SMALLEST_NORMAL = np.float32(1.1754944e-38)
LARGEST = np.float32(3.4028235e38)
MAX_COUNT = 2**31 - 1


def write_tensor(values: np.ndarray, *, layout: int = 0, quantise: bool = False) -> Element:
    """A tensor record of an array with at most four axes; missing axes are added behind, as 1.

    `layout` is 0 for interleaved values and 1 for planar ones. It is stored but never read back:
    a network's layout flag decides. Raises `ModelFileError` for shapes that cannot be stored.
    """
    values = np.asarray(values, np.float32)
    if values.ndim > 4:
        raise ModelFileError(f"a tensor has at most four axes, not {values.ndim}")
    if values.size > MAX_COUNT:
        raise ModelFileError(f"a tensor of {values.size} values is too large")
    dims = [*values.shape, 1, 1, 1, 1][:4]
    pairs = [
        ("float_bits", integer(32)),
        ("dims", list_of(integer(entry) for entry in (*dims, values.size, layout))),
    ]
    if quantise:
        data, mean, step = quantise_values(values)
        pairs += [("mean_f", float_array(mean)), ("step_f", float_array(step))]
        pairs += [("data", byte_array(data.tobytes()))]
    else:
        pairs += [("data", float_array(values))]
    return dictionary(pairs)


def read_tensor(record: Element, *, quantised: bool = False) -> np.ndarray:
    """The values of a record as a float32 array of four axes.

    Whether a record is quantised is not written in it; the network says so. At most four entries of
    the record's dims count, and axes that it does not give are 1. Raises `ModelFileError` when keys
    are missing or the values are fewer than the dims ask for.
    """
    values = lookup(record)
    dims = [to_int(entry) for entry in children(_need(values, "dims"))[:4]]
    if any(entry < 0 for entry in dims) or math.prod(filter(None, dims)) > MAX_COUNT:
        raise ModelFileError(f"tensor dims {dims} are out of range")
    count = math.prod(dims)
    data = _need(values, "data")
    if quantised:
        blocks = -(-count // BLOCK_SIZE)
        mean = to_floats(_need(values, "mean_f"), blocks)
        step = to_floats(_need(values, "step_f"), blocks)
        floats = dequantise_values(to_int8(data, count), mean, step)
    else:
        floats = to_floats(data, count)
    return floats.reshape((*dims, 1, 1, 1, 1)[:4])


def quantise_values(values: np.ndarray) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    """Bytes (int8, one per value), means and steps (float32, one per block) of values in C order.

    Values far outside a block's range wrap around in their byte, and a block of a single positive
    value comes back as something else entirely: both belong to the format.
    """
    flat = np.asarray(values, np.float32).ravel()
    blocks = -(-flat.size // BLOCK_SIZE)
    # NaN fills the last block up: it raises no maximum and lowers no minimum.
    padded = np.full(blocks * BLOCK_SIZE, np.nan, np.float32)
    padded[: flat.size] = flat
    padded = padded.reshape(blocks, BLOCK_SIZE)
    largest, smallest = _block_ranges(padded)
    sizes = np.minimum(BLOCK_SIZE, flat.size - BLOCK_SIZE * np.arange(blocks)).astype(np.float32)
    with np.errstate(all="ignore"):
        mean = ((smallest.astype(np.float64) + largest) * 0.5).astype(np.float32)
        # As in the engine: divided by the number of values, not by the number of byte values.
        step = (largest - smallest) / sizes
        quotient = ((padded - mean[:, None]) / step[:, None]).ravel()[: flat.size]
        fits = (quotient >= -(2.0**31)) & (quotient < 2.0**31)
        whole = np.where(fits, quotient, np.float32(-(2.0**31))).astype(np.int64)
    return (whole & 0xFF).astype(np.uint8).view(np.int8), mean, step


def _block_ranges(blocks: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
    """Largest and smallest value of each row as the format finds them, walking along the row."""
    start = np.full((len(blocks), 1), SMALLEST_NORMAL, np.float32)
    running = np.fmax.accumulate(np.hstack([start, blocks]), axis=1)
    # As in the engine, a value that raises the maximum is not looked at for the minimum.
    considered = np.where(blocks > running[:, :-1], np.float32(np.nan), blocks)
    return running[:, -1], np.fmin.reduce(considered, axis=1, initial=LARGEST)


def dequantise_values(data: np.ndarray, mean: np.ndarray, step: np.ndarray) -> np.ndarray:
    """byte * step + mean as float32; `data` is int8, the others hold one float per block."""
    block = np.arange(data.size) // BLOCK_SIZE
    with np.errstate(all="ignore"):
        return data.astype(np.float32) * step[block] + mean[block]


def _need(values: dict[str, Element], key: str) -> Element:
    if key not in values:
        raise ModelFileError(f'a tensor record has no "{key}"')
    return values[key]
