"""The container, byte by byte, and what the reader makes of damaged containers."""

import struct

import numpy as np
import pytest
from ravu import tag_tree
from ravu.tag_tree import Element, ElementType, ModelFileError


def header(element_type, length):
    return struct.pack("<II", element_type, length)


def parsed(element):
    """The element as a reader sees it: the only value of a root dictionary."""
    root = tag_tree.parse(tag_tree.dictionary([("key", element)]).to_bytes())
    return tag_tree.lookup(root)["key"]


@pytest.mark.parametrize(
    "text, length", [("", 4), ("bn", 4), ("abc", 4), ("conv", 8), ("relu", 8), ("priorbox", 12)]
)
def test_string_is_padded_with_at_least_one_zero(text, length):
    encoded = tag_tree.string(text).to_bytes()
    assert encoded == header(0, length) + text.encode().ljust(length, b"\0")
    assert tag_tree.to_text(parsed(tag_tree.string(text))) == text


def test_string_beyond_ascii_is_padded_by_its_bytes():
    encoded = tag_tree.string("Größe").to_bytes()
    assert encoded == header(0, 8) + "Größe".encode() + b"\0"


def test_string_with_a_zero_byte_is_refused():
    with pytest.raises(ModelFileError, match="zero byte"):
        tag_tree.string("a\0b")


def test_string_without_a_zero_byte_ends_with_its_element():
    assert tag_tree.to_text(Element(ElementType.STRING, b"abcd")) == "abcd"


def test_string_that_is_no_utf8_survives_reading_and_writing():
    text = tag_tree.to_text(Element(ElementType.STRING, b"\xff\xfe\0\0"))
    assert tag_tree.string(text).payload == b"\xff\xfe\0\0"


@pytest.mark.parametrize("value", [0, 1, -1, 2**31 - 1, -(2**31)])
def test_integer_takes_twelve_bytes(value):
    assert tag_tree.integer(value).to_bytes() == header(1, 4) + struct.pack("<i", value)
    assert tag_tree.to_int(parsed(tag_tree.integer(value))) == value


def test_integer_stores_the_bits_of_unsigned_values():
    assert tag_tree.integer(2**32 - 1).payload == b"\xff\xff\xff\xff"


@pytest.mark.parametrize("value", [2**32, -(2**31) - 1])
def test_integer_beyond_32_bits_is_refused(value):
    with pytest.raises(ModelFileError, match="32-bit"):
        tag_tree.integer(value)


def test_flags_are_stored_as_0_or_1():
    assert tag_tree.integer(True).payload == b"\1\0\0\0"
    assert tag_tree.integer(False).payload == b"\0\0\0\0"


def test_float_is_single_precision():
    assert tag_tree.float32(0.1).to_bytes() == header(2, 4) + struct.pack("<f", 0.1)
    assert tag_tree.to_float(parsed(tag_tree.float32(0.1))) == np.float32(0.1)


def test_float_beyond_single_precision_is_refused():
    with pytest.raises(ModelFileError, match="single-precision"):
        tag_tree.float32(1e39)


def test_float_array_holds_its_numbers_in_c_order():
    values = np.array([[1, 2], [3, 4]], np.float64).T
    encoded = tag_tree.float_array(values).to_bytes()
    assert encoded == header(3, 16) + struct.pack("<4f", 1, 3, 2, 4)


def test_byte_array_is_not_padded():
    assert tag_tree.byte_array(b"abcde").to_bytes() == header(0, 5) + b"abcde"


def test_elements_behind_an_odd_byte_array_are_read_unaligned():
    pairs = [("a", tag_tree.byte_array(b"xyz")), ("b", tag_tree.float_array(np.arange(3.0)))]
    values = tag_tree.lookup(tag_tree.parse(tag_tree.dictionary(pairs).to_bytes()))
    assert tag_tree.to_int8(values["a"], 3).tolist() == [120, 121, 122]
    assert tag_tree.to_floats(values["b"]).tolist() == [0, 1, 2]


def test_dictionary_is_the_sum_of_its_pairs_in_the_given_order():
    element = tag_tree.dictionary([("b", tag_tree.integer(1)), ("a", tag_tree.integer(2))])
    first = header(0, 4) + b"b\0\0\0" + header(1, 4) + b"\1\0\0\0"
    second = header(0, 4) + b"a\0\0\0" + header(1, 4) + b"\2\0\0\0"
    assert element.to_bytes() == header(4, 48) + first + second


def test_key_stored_twice_yields_the_last_value():
    pairs = [("k", tag_tree.integer(1)), ("j", tag_tree.integer(2)), ("k", tag_tree.integer(3))]
    element = tag_tree.dictionary(pairs)
    assert len(element.payload) == 72
    assert tag_tree.to_int(tag_tree.lookup(element)["k"]) == 3


def test_prefix_of_a_key_does_not_match_in_either_direction():
    values = tag_tree.lookup(tag_tree.dictionary([("normalize", tag_tree.integer(1))]))
    assert "norm" not in values
    values = tag_tree.lookup(tag_tree.dictionary([("norm", tag_tree.integer(1))]))
    assert "normalize" not in values


def test_empty_containers_are_bare_headers():
    assert tag_tree.dictionary([]).to_bytes() == header(4, 0)
    assert tag_tree.list_of([]).to_bytes() == header(5, 0)
    assert tag_tree.lookup(parsed(tag_tree.dictionary([]))) == {}
    assert tag_tree.children(parsed(tag_tree.list_of([]))) == []


def test_list_keeps_elements_of_different_types_in_order():
    items = [tag_tree.string("a"), tag_tree.integer(1), tag_tree.list_of([tag_tree.float32(2)])]
    element = tag_tree.list_of(items)
    assert element.to_bytes() == header(5, 44) + b"".join(item.to_bytes() for item in items)
    assert tag_tree.children(parsed(element)) == items


def test_small_array_is_a_dictionary_with_one_child_and_no_key():
    element = tag_tree.small_int_array([0, 3, 1, -1])
    assert element.to_bytes() == header(4, 24) + header(1, 16) + struct.pack("<4i", 0, 3, 1, -1)
    assert tag_tree.to_small_ints(parsed(element), 4) == [0, 3, 1, -1]
    element = tag_tree.small_float_array([0.5, 2])
    assert element.to_bytes() == header(4, 16) + header(2, 8) + struct.pack("<2f", 0.5, 2)
    assert tag_tree.to_small_floats(parsed(element)) == [0.5, 2]


def test_empty_small_array_has_an_empty_child():
    element = tag_tree.small_float_array([])
    assert element.to_bytes() == header(4, 8) + header(2, 0)
    assert tag_tree.to_small_floats(element) == []


def test_type_words_are_not_checked_when_reading():
    assert tag_tree.to_float(Element(ElementType.INTEGER, struct.pack("<f", 1.5))) == 1.5
    assert tag_tree.to_int(Element(77, struct.pack("<i", 5))) == 5
    assert tag_tree.children(Element(77, tag_tree.integer(1).to_bytes())) == [tag_tree.integer(1)]


def test_value_too_short_for_its_use_is_refused():
    with pytest.raises(ModelFileError, match="3 bytes where 4"):
        tag_tree.to_int(Element(ElementType.INTEGER, b"\0\0\0"))
    with pytest.raises(ModelFileError, match="4 bytes where 8"):
        tag_tree.to_floats(Element(ElementType.FLOAT_ARRAY, b"\0\0\0\0"), 2)
    with pytest.raises(ModelFileError, match="12 bytes where 16"):
        tag_tree.to_small_ints(tag_tree.small_int_array([1, 2, 3]), 4)


def test_root_that_is_no_dictionary_is_refused():
    with pytest.raises(ModelFileError, match="not a dictionary"):
        tag_tree.parse(tag_tree.list_of([]).to_bytes())


def test_bytes_behind_the_root_are_refused():
    with pytest.raises(ModelFileError, match="1 bytes behind"):
        tag_tree.parse(tag_tree.dictionary([]).to_bytes() + b"\0")


def test_file_shorter_than_its_header_says_is_refused():
    with pytest.raises(ModelFileError, match="not enough bytes remaining"):
        tag_tree.parse(header(4, 8) + b"\0" * 7)


def test_element_longer_than_its_parent_is_refused():
    inner = header(1, 5) + b"\0" * 4
    with pytest.raises(ModelFileError, match="not enough bytes remaining"):
        tag_tree.children(Element(ElementType.LIST, inner))
    with pytest.raises(ModelFileError, match="not enough bytes remaining"):
        tag_tree.lookup(Element(ElementType.DICTIONARY, tag_tree.string("k").to_bytes() + inner))


def test_length_near_the_end_of_32_bits_does_not_wrap():
    with pytest.raises(ModelFileError, match="4294967295 bytes"):
        tag_tree.children(Element(ElementType.LIST, header(1, 0xFFFFFFFF) + b"\0" * 4))


def test_key_without_a_value_is_refused():
    with pytest.raises(ModelFileError, match="has no value"):
        tag_tree.lookup(Element(ElementType.DICTIONARY, tag_tree.string("k").to_bytes()))
