"""Python side of the ravu inference engine.

    import ravu

    with ravu.Network("pets.ravu") as network:
        (scores,) = network.run(pixels)          # (1, size, size, 3) unsigned bytes
        print(network.labels[scores.argmax()])

`ravu.Network` runs a model, `ravu.model_file` builds and reads model files, and `ravu.convert`
makes them of trained networks (`python -m ravu.convert`).
"""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

from .model_file import ModelFileError

if TYPE_CHECKING:
    from .network import EngineError, Mode, Network

__all__ = ["EngineError", "Mode", "ModelFileError", "Network"]


def __getattr__(name: str) -> Any:
    # Model files can be built and read where the compiled module is missing.
    if name in ("EngineError", "Mode", "Network"):
        from . import network

        return getattr(network, name)
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
