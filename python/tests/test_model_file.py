"""Whole files: the root's keys and bytes, and that damaged files end in one kind of error."""

import struct

try:
    import resource
except ImportError:  # there are none on Windows
    resource = None

import numpy as np
import pytest
from ravu import tag_tree
from ravu.model_file import (
    Conv,
    FullyConnected,
    Model,
    ModelFileError,
    Pool,
    Relu,
    Reshape,
    Softmax,
    UnknownLayer,
)

ROOT_KEYS = ["data_mean", "layout", "layers", "label_names", "input_name", "need_quant"]
ROOT_KEYS += ["input_size", "image_size", "input_channel_num", "need_crop"]


def small_model(**changes):
    values = np.random.default_rng(3).normal(size=200)
    model = Model(
        **{
            "input_size": 4,
            "image_size": 4,
            "input_channels": 2,
            "data_mean": [1.0, 2.0],
            "need_crop": True,
            "labels": ["cat", "dog", "bird"],
            **changes,
        }
    )
    model.append(Conv(kernels=values[:54].reshape(3, 3, 3, 2), bias=values[:3], padding=1), "c")
    model.append(Relu(), "c")
    model.append(Pool(size=2, stride=2), "p")
    model.append(FullyConnected(weights=values[54:90].reshape(12, 3), bias=values[3:6]), "score")
    model.append(Softmax(), "probability")
    return model


def root_of(model):
    return tag_tree.parse(model.to_bytes())


def keys(record):
    elements = tag_tree.children(record)
    return [tag_tree.to_text(key) for key in elements[::2]]


def file_without(key):
    root = root_of(small_model())
    pairs = [(k, v) for k, v in zip(keys(root), tag_tree.children(root)[1::2]) if k != key]
    return tag_tree.dictionary(pairs).to_bytes()


def file_with(**values):
    """The small model's file with further pairs behind its own."""
    root = root_of(small_model())
    payload = bytes(root.payload) + tag_tree.dictionary(values.items()).payload
    return tag_tree.Element(root.type, payload).to_bytes()


def test_smallest_file_has_exactly_these_bytes():
    def pair(key, element_type, payload):
        text = key.encode()
        padded = text.ljust((len(text) + 4) // 4 * 4, b"\0")
        key_bytes = struct.pack("<II", 0, len(padded)) + padded
        return key_bytes + struct.pack("<II", element_type, len(payload)) + payload

    payload = (
        pair("layout", 0, b"BHWC\0\0\0\0")
        + pair("layers", 5, b"")
        + pair("label_names", 5, b"")
        + pair("input_name", 0, b"data\0\0\0\0")
        + pair("need_quant", 1, b"\0\0\0\0")
        + pair("input_size", 1, b"\4\0\0\0")
        + pair("image_size", 1, b"\3\0\0\0")
        + pair("input_channel_num", 1, b"\2\0\0\0")
    )
    model = Model(input_size=4, image_size=3, input_channels=2)
    assert model.to_bytes() == struct.pack("<II", 4, len(payload)) + payload


def test_root_keys_stand_in_the_engines_order():
    assert keys(root_of(small_model())) == ROOT_KEYS
    bare = Model(input_size=4, image_size=4, input_channels=1)
    assert keys(root_of(bare)) == ROOT_KEYS[1:-1]


def test_model_comes_back_as_it_was_built(tmp_path):
    model = small_model()
    path = tmp_path / "m.ravu"
    model.write(path)
    again = Model.read(path)
    assert [entry.name for entry in tmp_path.iterdir()] == ["m.ravu"]
    assert path.read_bytes() == model.to_bytes() == again.to_bytes()
    assert (again.input_size, again.image_size, again.input_channels) == (4, 4, 2)
    assert again.input_name == "data"
    assert again.labels == ["cat", "dog", "bird"]
    assert again.data_mean.tolist() == [[[1, 2]] * 4] * 4
    assert [layer.keyword for layer in again.layers] == ["conv", "relu", "pool", "neuron", "max"]


def test_append_links_each_layer_to_the_one_before():
    links = [(layer.inputs, layer.outputs) for layer in small_model().layers]
    assert links == [
        (["data"], ["c"]),
        (["c"], ["c"]),
        (["c"], ["p"]),
        (["p"], ["score"]),
        (["score"], ["probability"]),
    ]


def test_append_takes_one_input_or_several():
    model = Model(input_size=4, image_size=4, input_channels=1)
    assert model.append(Relu(), "a", inputs="data") == "a"
    model.append(Relu(), "b", inputs=["a", "data"])
    assert [layer.inputs for layer in model.layers] == [["data"], ["a", "data"]]


@pytest.mark.parametrize("text, layout", [("BCHW", "BCHW"), ("BHWC", "BHWC"), ("bchw", "BHWC")])
def test_only_bchw_means_planar(text, layout):
    assert Model.from_bytes(file_with(layout=tag_tree.string(text))).layout == layout


def test_layout_flag_stands_in_the_tensors_dims():
    for layout, flag in (("BCHW", 1), ("BHWC", 0)):
        model = small_model(layout=layout, data_mean=np.zeros((2, 4, 4)) if flag else None)
        layers = tag_tree.lookup(root_of(model))["layers"]
        kernels = tag_tree.lookup(tag_tree.children(layers)[0])["kernels"]
        dims = tag_tree.children(tag_tree.lookup(kernels)["dims"])
        assert tag_tree.to_int(dims[5]) == flag


def test_absent_optional_keys_give_these_defaults():
    assert Model.from_bytes(file_without("layout")).layout == "BHWC"
    assert Model.from_bytes(file_without("need_crop")).need_crop is None
    assert Model.from_bytes(file_without("need_quant")).need_quant is False
    assert Model.from_bytes(file_without("data_mean")).data_mean is None
    assert Model.from_bytes(file_without("label_names")).labels == []


@pytest.mark.parametrize(
    "key", ["input_size", "image_size", "input_channel_num", "input_name", "layers"]
)
def test_file_without_a_required_key_is_refused(key):
    with pytest.raises(ModelFileError, match=f'^network: "{key}" is missing$'):
        Model.from_bytes(file_without(key))


def test_need_crop_keeps_its_three_states():
    for state in (None, False, True):
        assert Model.from_bytes(small_model(need_crop=state).to_bytes()).need_crop is state


def test_label_list_is_written_even_when_empty():
    assert "label_names" in keys(root_of(small_model(labels=[])))


def test_mean_is_spread_over_the_image_and_takes_the_inputs_shape():
    mean = tag_tree.lookup(root_of(small_model()))["data_mean"]
    dims = tag_tree.children(tag_tree.lookup(mean)["dims"])
    assert [tag_tree.to_int(item) for item in dims] == [1, 4, 4, 2, 32, 0]
    with pytest.raises(ModelFileError, match="mean of shape"):
        small_model(data_mean=[1, 2, 3]).to_bytes()


def test_planar_mean_comes_back_in_planes():
    planes = np.arange(32.0).reshape(2, 4, 4)
    again = Model.from_bytes(small_model(layout="BCHW", data_mean=planes).to_bytes())
    assert again.data_mean.tolist() == planes.tolist()


def test_mean_with_too_few_values_is_refused():
    with pytest.raises(ModelFileError, match="holds 32 values, not 50"):
        Model.from_bytes(file_with(input_size=tag_tree.integer(5)))


def test_mean_is_never_quantised():
    model = small_model(need_quant=True)
    again = Model.from_bytes(model.to_bytes())
    assert again.data_mean.tolist() == [[[1, 2]] * 4] * 4
    assert again.need_quant
    difference = again.layers[0].kernels - small_model().layers[0].kernels
    assert 0 < np.abs(difference).max() < 0.2


def test_unknown_class_stays_in_the_file():
    model = small_model()
    record = tag_tree.dictionary([("class", tag_tree.string("crop"))])
    model.layers.insert(1, UnknownLayer(keyword="crop", record=record))
    again = Model.from_bytes(model.to_bytes())
    assert again.layers[1].keyword == "crop"
    assert again.to_bytes() == model.to_bytes()


def test_unreadable_path_is_an_os_error(tmp_path):
    with pytest.raises(OSError):
        Model.read(tmp_path / "missing.ravu")


def test_what_cannot_be_a_file_leaves_the_old_one(tmp_path):
    path = tmp_path / "m.ravu"
    small_model().write(path)
    before = path.read_bytes()
    with pytest.raises(ModelFileError):
        small_model(data_mean=[1, 2, 3]).write(path)
    assert path.read_bytes() == before


@pytest.mark.skipif(resource is None, reason="no limit on file sizes here")
def test_a_write_that_fails_halfway_leaves_the_old_file_and_no_other(tmp_path):
    path = tmp_path / "m.ravu"
    small_model().write(path)
    before = path.read_bytes()
    large = Model(input_size=4, image_size=4, input_channels=2, labels=["x" * 100_000])
    limits = resource.getrlimit(resource.RLIMIT_FSIZE)
    resource.setrlimit(resource.RLIMIT_FSIZE, (50_000, limits[1]))
    try:
        with pytest.raises(OSError):
            large.write(path)
    finally:
        resource.setrlimit(resource.RLIMIT_FSIZE, limits)
    assert path.read_bytes() == before
    assert list(tmp_path.iterdir()) == [path]


def test_a_rename_that_fails_leaves_no_other_file(tmp_path):
    (tmp_path / "m.ravu").mkdir()
    with pytest.raises(OSError):
        small_model().write(tmp_path / "m.ravu")
    assert [entry.name for entry in tmp_path.iterdir()] == ["m.ravu"]


def test_a_file_of_the_users_own_beside_it_stays(tmp_path):
    (tmp_path / "m.ravu.partial").write_text("mine")
    small_model().write(tmp_path / "m.ravu")
    assert (tmp_path / "m.ravu.partial").read_text() == "mine"


@pytest.mark.parametrize("need_quant", [False, True])
def test_every_prefix_of_a_file_is_refused(need_quant):
    data = small_model(need_quant=need_quant).to_bytes()
    for length in range(len(data)):
        with pytest.raises(ModelFileError):
            Model.from_bytes(data[:length])


def test_every_prefix_of_the_root_with_its_length_mended_is_refused():
    data = small_model(need_crop=None).to_bytes()
    for length in range(8, len(data)):
        mended = data[:4] + struct.pack("<I", length - 8) + data[8:length]
        with pytest.raises(ModelFileError):
            Model.from_bytes(mended)


def test_no_damaged_word_ends_in_another_exception():
    data = small_model(need_quant=True)
    data.append(Reshape(dims=[0, -1, 1, 1]), "r")
    data = data.to_bytes()
    refused = 0
    for offset in range(0, len(data) - 4, 3):
        for word in (0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFF8, 0xFFFFFFFF):
            damaged = data[:offset] + struct.pack("<I", word) + data[offset + 4 :]
            try:
                Model.from_bytes(damaged)
            except ModelFileError:
                refused += 1
    assert refused > 100
