"""Windows, compared with lists of the elements that they read."""

import itertools

import numpy as np
import pytest
from ravu.convert.geometry import (
    aligner,
    engine_padding,
    engine_windows,
    place_kernel,
    source_windows,
)
from ravu.convert.graph import Refused


def taps_of_source(size, kernel, stride, begin, end, dilation):
    """For each output the input index of each tap; -1 is padding."""
    extent = (kernel - 1) * dilation + 1
    starts = range(-begin, size + end - extent + 1, stride)
    return [[i if 0 <= i < size else -1 for i in range(s, s + extent, dilation)] for s in starts]


def taps_of_engine(size, placement, first, kernel, dilation):
    outputs = (size + 2 * placement.padding - placement.size) // placement.stride + 1
    found = []
    for o in range(outputs):
        start = o * placement.stride - placement.padding + first
        taps = range(start, start + (kernel - 1) * dilation + 1, dilation)
        found.append([i if 0 <= i < size else -1 for i in taps])
    return found


def test_placed_kernels_read_what_the_sources_read():
    rng = np.random.default_rng(7)
    placed = 0
    for _ in range(3000):
        sizes = tuple(int(n) for n in rng.integers(1, 12, 2))
        kernel = tuple(int(n) for n in rng.integers(1, 6, 2))
        pads = tuple(int(n) for n in rng.integers(0, 4, 4))
        dilation = tuple(int(n) for n in rng.integers(1, 4, 2))
        stride = int(rng.integers(1, 4))
        try:
            placement = place_kernel(sizes, kernel, (stride, stride), pads, dilation)
        except Refused:
            continue
        placed += 1
        for i, first in enumerate((placement.top, placement.left)):
            assert 0 <= first and first + (kernel[i] - 1) * dilation[i] < placement.size
            expected = taps_of_source(
                sizes[i], kernel[i], stride, pads[i], pads[i + 2], dilation[i]
            )
            assert expected == taps_of_engine(sizes[i], placement, first, kernel[i], dilation[i])
    assert placed > 500


def test_symmetric_convolutions_stay_as_they_are():
    placement = place_kernel((14, 14), (3, 3), (2, 2), (1, 1, 1, 1))
    assert (placement.size, placement.padding, placement.top, placement.left) == (3, 1, 0, 0)


@pytest.mark.parametrize("change", [(1, 1, 0, 0), (0, 0, -1, -1), (2, 2, -1, -1), (0, 1, 1, 0)])
def test_the_aligner_moves_rows(change):
    placement = aligner(change)
    top, left, bottom, right = change
    for first, begin, end in ((placement.top, top, bottom), (placement.left, left, right)):
        assert taps_of_engine(6, placement, first, 1, 1) == [
            [i if 0 <= i < 6 else -1] for i in range(-begin, 6 + end)
        ]


def test_the_aligner_cannot_change_rows_and_columns_by_different_amounts():
    with pytest.raises(Refused, match="rows change by 1, columns by 0"):
        aligner((1, 0, 0, 0))


def test_engine_windows_follow_the_documented_examples():
    assert engine_windows(5, 2, 2, 0) == ((0, 2), (2, 2), (4, 1))
    assert engine_windows(4, 3, 1, 1) == ((0, 2), (0, 3), (1, 3), (2, 2))
    # With stride 2 and padding 1, the first two windows both start at 0.
    assert [start for start, _ in engine_windows(6, 3, 2, 1)] == [0, 0, 2, 4]


def test_a_padding_is_found_only_where_all_windows_agree():
    agreeing = 0
    sizes, kernels, strides, pads = range(3, 9), (2, 3, 5), (1, 2), (0, 1, 2)
    for size, kernel, stride, pad in itertools.product(sizes, kernels, strides, pads):
        if pad >= kernel or size + 2 * pad < kernel:
            continue
        for ceil_mode in (False, True):
            windows = source_windows(size, kernel, stride, pad, pad, ceil_mode)
            found = engine_padding(size, kernel, stride, windows)
            if found is not None:
                agreeing += 1
                assert engine_windows(size, kernel, stride, found) == windows.spans
    assert agreeing > 40


def test_a_last_window_that_would_start_in_the_padding_is_left_out():
    assert len(source_windows(4, 2, 2, 1, 1, ceil_mode=True).spans) == 3
    assert len(source_windows(5, 2, 2, 0, 0, ceil_mode=True).spans) == 3


def test_hopeless_windows_are_refused():
    for arguments in [
        (3, 4, 1, 0, 0, False),
        (3, 0, 1, 0, 0, False),
        (3, 2, 0, 0, 0, False),
        (3, 2, 1, -1, 0, False),
        (3, 2, 1, 1 << 40, 0, False),
    ]:
        with pytest.raises(Refused):
            source_windows(*arguments)
