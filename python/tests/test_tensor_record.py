"""Tensor records, plain and quantised, against a codec that walks the values one by one."""

import numpy as np
import pytest
from ravu import tag_tree
from ravu.tag_tree import ModelFileError
from ravu.tensor_record import quantise_values, read_tensor, write_tensor

SMALLEST = np.float32(1.1754944e-38)
LARGEST = np.float32(3.4028235e38)


def keys(record):
    elements = tag_tree.children(record)
    return [tag_tree.to_text(key) for key in elements[::2]]


def dims_of(record):
    return [tag_tree.to_int(item) for item in tag_tree.children(tag_tree.lookup(record)["dims"])]


def naive_quantise(values):
    """One value after the other, each operation rounded to single precision."""
    data, means, steps = [], [], []
    for start in range(0, len(values), 128):
        block = [np.float32(value) for value in values[start : start + 128]]
        largest, smallest = SMALLEST, LARGEST
        for value in block:
            if value > largest:
                largest = value
            elif value < smallest:
                smallest = value
        mean = np.float32((float(smallest) + float(largest)) * 0.5)
        step = np.float32(largest - smallest) / np.float32(len(block))
        for value in block:
            quotient = np.float32(value - mean) / step
            inside = -(2.0**31) <= quotient < 2.0**31
            data.append((int(quotient) if inside else -(2**31)) & 0xFF)
        means.append(mean)
        steps.append(step)
    return bytes(data), means, steps


def assert_quantises_as_naive(values):
    values = np.asarray(values, np.float32)
    data, mean, step = quantise_values(values)
    with np.errstate(all="ignore"):
        expected, means, steps = naive_quantise(values)
    assert data.tobytes() == expected
    np.testing.assert_array_equal(mean, means)
    np.testing.assert_array_equal(step, steps)


def quantised_record(dims, data, mean, step):
    return tag_tree.dictionary(
        [
            ("dims", tag_tree.list_of(tag_tree.integer(entry) for entry in dims)),
            ("mean_f", tag_tree.float_array(np.array(mean))),
            ("step_f", tag_tree.float_array(np.array(step))),
            ("data", tag_tree.byte_array(bytes(data))),
        ]
    )


def plain_record(dims, values):
    return tag_tree.dictionary(
        [
            ("dims", tag_tree.list_of(tag_tree.integer(entry) for entry in dims)),
            ("data", tag_tree.float_array(np.array(values))),
        ]
    )


def test_plain_record_is_written_with_these_keys_and_bytes():
    record = write_tensor(np.array([[1.5, -2.0]]), layout=1)
    assert keys(record) == ["float_bits", "dims", "data"]
    values = tag_tree.lookup(record)
    assert tag_tree.to_int(values["float_bits"]) == 32
    assert dims_of(record) == [1, 2, 1, 1, 2, 1]
    assert values["data"].to_bytes() == tag_tree.float_array(np.array([1.5, -2.0])).to_bytes()


def test_quantised_record_is_written_with_these_keys():
    record = write_tensor(np.arange(130.0), quantise=True)
    assert keys(record) == ["float_bits", "dims", "mean_f", "step_f", "data"]
    values = tag_tree.lookup(record)
    assert tag_tree.to_int(values["float_bits"]) == 32
    assert dims_of(record) == [130, 1, 1, 1, 130, 0]
    assert values["data"].type == tag_tree.ElementType.STRING
    assert len(values["data"].payload) == 130
    assert len(values["mean_f"].payload) == len(values["step_f"].payload) == 8


def test_dims_with_six_entries_yield_the_first_four():
    record = plain_record([1, 2, 1, 3, 99, 1], range(6))
    assert read_tensor(record).shape == (1, 2, 1, 3)


def test_dims_with_fewer_than_four_entries_leave_the_others_at_1():
    assert read_tensor(plain_record([2, 3], range(6))).shape == (2, 3, 1, 1)


def test_empty_dims_hold_one_value():
    assert read_tensor(plain_record([], [7])).tolist() == [[[[7]]]]


def test_data_longer_than_the_dims_ask_for_is_cut():
    assert read_tensor(plain_record([2], [1, 2, 3])).ravel().tolist() == [1, 2]


@pytest.mark.parametrize("dims", [[3], [2**31 - 1, 2**31 - 1], [-1], [0, 2**31 - 1, 2**31 - 1]])
def test_dims_that_the_data_does_not_fill_are_refused(dims):
    with pytest.raises(ModelFileError):
        read_tensor(plain_record(dims, [1, 2]))
    with pytest.raises(ModelFileError):
        read_tensor(quantised_record(dims, [1, 2], [0], [1]), quantised=True)


@pytest.mark.parametrize("key", ["dims", "data"])
def test_missing_key_is_refused_by_name(key):
    pairs = {"dims": tag_tree.list_of([]), "data": tag_tree.float_array(np.zeros(1))}
    del pairs[key]
    with pytest.raises(ModelFileError, match=f'no "{key}"'):
        read_tensor(tag_tree.dictionary(pairs.items()))


@pytest.mark.parametrize("mean, step", [([0], [1, 1]), ([0, 0], [1])])
def test_fewer_means_or_steps_than_blocks_are_refused(mean, step):
    with pytest.raises(ModelFileError, match="4 bytes where 8"):
        read_tensor(quantised_record([129], [0] * 129, mean, step), quantised=True)


def test_the_caller_and_not_the_record_says_whether_it_is_quantised():
    record = write_tensor(np.arange(4.0), quantise=True)
    with pytest.raises(ModelFileError, match="4 bytes where 16"):
        read_tensor(record)


def test_bytes_are_sign_extended_and_use_their_own_block():
    record = quantised_record([129], [255] + [0] * 127 + [128], [10, 20], [2, 0.5])
    values = read_tensor(record, quantised=True).ravel()
    assert values[0] == 8
    assert values[1] == 10
    assert values[128] == 20 - 64


def test_plain_values_return_with_the_same_bits():
    values = np.array([0.1, -0.0, np.inf, np.nan, 1e-45], np.float32)
    assert read_tensor(write_tensor(values)).tobytes() == values.tobytes()


def test_tensor_of_more_than_four_axes_is_refused():
    with pytest.raises(ModelFileError, match="four axes"):
        write_tensor(np.zeros((1, 1, 1, 1, 1)))


def test_equal_positive_values_get_step_0_and_return_exactly():
    data, mean, step = quantise_values(np.full(128, 3.7))
    assert step.tolist() == [0]
    assert mean.tolist() == [np.float32(3.7)]
    # 0 / 0 is not a number, which becomes 0x80000000, whose low byte is 0.
    assert data.tolist() == [0] * 128
    record = write_tensor(np.full(128, 3.7), quantise=True)
    assert read_tensor(record, quantised=True).ravel().tolist() == [np.float32(3.7)] * 128


def test_single_positive_value_keeps_the_largest_float_as_its_minimum():
    _, mean, step = quantise_values(np.array([2.0]))
    assert mean[0] == np.float32((float(LARGEST) + 2) * 0.5)
    assert step[0] == np.float32(2) - LARGEST
    assert_quantises_as_naive([2.0])


def test_value_that_raises_the_maximum_is_not_considered_for_the_minimum():
    _, mean, step = quantise_values(np.array([1.0, 2.0, 3.0, 2.5]))
    assert mean[0] == 2.75
    assert step[0] == 0.125


def test_step_divides_by_the_number_of_values_in_the_block():
    _, _, step = quantise_values(np.concatenate([np.zeros(128), [-8, 8, 0, 0]]))
    assert step[1] == 4


def test_evenly_spread_block_of_128_stays_between_64_and_minus_64():
    data, _, _ = quantise_values(np.linspace(5, -5, 128))
    assert data.max() == 64
    assert data.min() == -64


def test_129_values_make_two_blocks():
    data, mean, step = quantise_values(np.arange(129.0))
    assert (data.size, mean.size, step.size) == (129, 2, 2)
    assert_quantises_as_naive(np.arange(129.0))


def test_no_values_make_no_block():
    data, mean, step = quantise_values(np.zeros(0))
    assert (data.size, mean.size, step.size) == (0, 0, 0)


def test_quotient_beyond_32_bits_becomes_byte_0():
    data, _, _ = quantise_values(np.array([-3e38] + [3e38] * 3, np.float32))
    assert_quantises_as_naive([-3e38, 3e38, 3e38, 3e38])
    assert data.tolist() == [0, 0, 0, 0]


@pytest.mark.parametrize("count", [1, 2, 127, 128, 129, 256, 1000])
@pytest.mark.parametrize("kind", ["normal", "positive", "negative", "rising", "tiny", "mixed"])
def test_bytes_equal_those_of_the_naive_codec(count, kind):
    values = np.random.default_rng(count).normal(size=count).astype(np.float32)
    if kind == "positive":
        values = np.abs(values)
    elif kind == "negative":
        values = -np.abs(values)
    elif kind == "rising":
        values = np.sort(values)
    elif kind == "tiny":
        values *= np.float32(1e-41)
    elif kind == "mixed":
        values[::3] = 0
        values[::7] = np.nan
        values[::11] = np.inf
    assert_quantises_as_naive(values)


def test_values_return_within_one_step():
    values = np.random.default_rng(1).normal(size=(4, 3, 3, 16)).astype(np.float32)
    record = write_tensor(values, quantise=True)
    returned = read_tensor(record, quantised=True)
    steps = tag_tree.to_floats(tag_tree.lookup(record)["step_f"])
    allowed = np.repeat(steps, 128)[: values.size] * 1.001
    assert returned.shape == values.shape
    assert (np.abs(returned - values).ravel() <= allowed).all()
