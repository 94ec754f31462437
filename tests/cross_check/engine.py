"""The shared library, just enough of it to run a model on the processor."""

import ctypes
import os
import tempfile
from pathlib import Path

import numpy as np

CPU = 0


class BlobView(ctypes.Structure):
    _fields_ = [
        ("data", ctypes.POINTER(ctypes.c_float)),
        ("count", ctypes.c_uint32),
        ("dims", ctypes.c_uint32 * 4),
    ]


def _load():
    library = ctypes.CDLL(os.environ["RAVU_LIBRARY"])
    handle = ctypes.c_void_p
    library.ravu_create_network_private.restype = handle
    library.ravu_create_network_private.argtypes = [ctypes.c_char_p, ctypes.c_bool, ctypes.c_uint32]
    library.ravu_destroy_network.argtypes = [handle]
    library.ravu_setup_runEngine.restype = ctypes.c_bool
    library.ravu_setup_runEngine.argtypes = [handle, ctypes.c_uint32]
    library.ravu_set_InputData_byRawData_float.argtypes = [
        handle,
        ctypes.POINTER(ctypes.c_float),
        *[ctypes.c_uint32] * 4,
    ]
    library.ravu_forward.argtypes = [handle, ctypes.c_uint32]
    library.ravu_getOutput_blob.restype = BlobView
    library.ravu_getOutput_blob.argtypes = [handle, ctypes.c_int32]
    return library


_library = _load()


def run(model, images):
    """The first output of a `ravu.model_file.Model` for images (batch, height, width, channels).

    Images of another size than the model's change the network's input.
    """
    images = np.ascontiguousarray(images, np.float32)
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder) / "model.ravu"
        model.write(path)
        network = _library.ravu_create_network_private(bytes(path), False, len(images))
    assert network, "the model does not load"
    try:
        assert _library.ravu_setup_runEngine(network, CPU)
        pixels = images.ctypes.data_as(ctypes.POINTER(ctypes.c_float))
        _library.ravu_set_InputData_byRawData_float(network, pixels, *images.shape)
        _library.ravu_forward(network, CPU)
        view = _library.ravu_getOutput_blob(network, 0)
        return np.ctypeslib.as_array(view.data, (view.count,)).reshape(view.dims).copy()
    finally:
        _library.ravu_destroy_network(network)
