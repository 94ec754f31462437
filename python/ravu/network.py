"""Running a model: `Network`, the engine behind a Python class.

Arrays that come back are copies: they stay what they are when the network runs again or is closed.
"""

from __future__ import annotations

import os
from collections.abc import Sequence
from enum import IntEnum
from types import TracebackType

import numpy as np

from ._engine import EngineError
from ._engine import Network as _Network
from .outline import Outline, read_outline

__all__ = ["EngineError", "Mode", "Network"]


class Mode(IntEnum):
    """Run modes."""

    CPU = 0
    """Processor, single precision."""
    GPU = 2
    """GPU; the weights leave the processor's memory after upload. Needs clDNN, or
    `libravu_cldnn.so` and an OpenCL device."""
    FIXED_POINT = 3
    """Processor, 8-bit kernel library where a layer has such a form. Needs `libravu_fixpoint.so`.
    """
    GPU_KEEP = 4
    """GPU; the weights stay in the processor's memory too."""


class Network:
    """A loaded model.

        with Network("pets.ravu", batch=2) as network:
            network.set_up(Mode.CPU)
            (scores,) = network.run([first, second])

    All tensors are single-precision arrays of four axes: batch, height, width, channels. One
    network is used by one thread at a time; distinct networks share nothing.
    """

    def __init__(
        self, path: str | os.PathLike[str], *, batch: int = 1, channel_mean: bool = False
    ) -> None:
        """Load a model file. Raises `EngineError` when it cannot be loaded.

        batch:        images in a run, at least 1
        channel_mean: replace the model's mean image by its average per channel
        """
        if batch < 1:
            raise ValueError(f"a batch holds at least one image, not {batch}")
        self._path = os.fspath(path)
        self._engine = _Network(self._path, channel_mean, batch)
        self._batch = batch
        self._mode: Mode | None = None
        self._known: Outline | None = None

    @classmethod
    def load(cls, path: str | os.PathLike[str], **options: int | bool) -> Network:
        """The same as the constructor."""
        return cls(path, **options)  # type: ignore[arg-type]

    def __enter__(self) -> Network:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self.close()

    def __repr__(self) -> str:
        state = "closed" if self._engine.closed else f"input {self.input_shape}"
        return f"<ravu.Network {self._path!r}, {state}>"

    def close(self) -> None:
        """Give the network's memory back. Arrays that came from it stay valid."""
        self._engine.close()

    @property
    def input_shape(self) -> tuple[int, int, int, int]:
        """What `run` takes: batch, height, width, channels."""
        size = self._engine.input_size
        return (self._batch, size, size, self._engine.input_channels)

    @property
    def labels(self) -> list[str]:
        """The names of the classes, in the order of the scores: empty ones before the score that
        the card gives the first label. An empty list when the model has none."""
        outline = self._outline
        return [""] * outline.label_offset + outline.labels if outline.labels else []

    @property
    def card(self) -> dict[str, object] | None:
        """What the model file says about itself: source, input recipe, verification. Or None."""
        return self._outline.card

    def set_up(self, mode: Mode | int = Mode.CPU) -> None:
        """Prepare the network for a run mode, once. Raises `EngineError` when it cannot be had:
        the library or the device that the mode needs is not there, or not enough memory."""
        mode = int(mode)
        self._engine.set_up(mode)
        self._mode = Mode(mode)

    def run(self, images: np.ndarray | Sequence[np.ndarray]) -> list[np.ndarray]:
        """One forward run: the network's outputs, in its order.

        images: (batch, height, width, channels), or one image or a sequence of images of (height,
                width, channels); unsigned bytes 0 to 255 go in as they are, anything else as
                single-precision floats. Nothing is scaled.

        A network that was not set up is set up for the processor. Raises `ValueError` for images
        of another shape than `input_shape`.
        """
        pixels = self._pixels(images)
        if self._mode is None:
            self.set_up(Mode.CPU)
        self._engine.set_input(pixels)
        self._engine.forward(int(self._mode or 0))
        return self.outputs()

    def outputs(self) -> list[np.ndarray]:
        """The outputs of the last run. A tensor that several layers write is listed for each."""
        return [_array(self._engine.output(i)) for i in range(self._engine.output_count())]

    def hidden(self, which: int | str) -> np.ndarray:
        """What a layer wrote in the last run.

        which: the layer's index in execution order, or the name of a tensor. Raises `KeyError` for
               a name and `IndexError` for an index that the network does not have. A tensor holds
               what the last layer left there, which for a layer that works in place is its result.
        """
        if isinstance(which, str):
            try:
                which = self._outline.layer_of[which]
            except KeyError:
                raise KeyError(f"no layer writes a tensor {which!r}") from None
        dims, values = self._engine.hidden(which)
        if not any(dims):
            raise IndexError(f"the network has no layer {which}, or it writes nothing")
        return _array((dims, values))

    def save(self, path: str | os.PathLike[str], *, quantise: bool = False) -> None:
        """Write the network to a model file; `quantise`: 8-bit convolution and dense weights.

        Raises `EngineError` when nothing could be written; an existing file then stays.
        """
        path = os.fspath(path)
        before = _stamp(path)
        self._engine.save(path, quantise)
        if _stamp(path) == before:
            raise EngineError(f"{path}: the network could not be saved")

    @property
    def _outline(self) -> Outline:
        if self._known is None:
            self._known = read_outline(self._path)
        return self._known

    def _pixels(self, images: np.ndarray | Sequence[np.ndarray]) -> np.ndarray:
        pixels = np.asarray(images)
        if pixels.dtype != np.uint8:
            pixels = pixels.astype(np.float32)
        if pixels.ndim == 3:
            pixels = pixels[None]
        if pixels.shape != self.input_shape:
            raise ValueError(f"images of shape {pixels.shape} for an input of {self.input_shape}")
        return np.ascontiguousarray(pixels)


def _array(tensor: tuple[tuple[int, ...], bytes]) -> np.ndarray:
    """A tensor's values. After a change of shape dims may say more than the tensor holds."""
    dims, data = tensor
    values = np.frombuffer(data, np.float32).copy()
    return values.reshape(dims) if values.size == np.prod(dims) else values


def _stamp(path: str) -> tuple[int, int] | None:
    """What changes when a file is replaced: it is written under another name, then renamed."""
    try:
        state = os.stat(path)
    except OSError:
        return None
    return (state.st_ino, state.st_mtime_ns)
