"""What a source network expects of its pixels, and what is done so that ours takes plain bytes."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass, replace

import numpy as np

from .graph import SourceError

IMAGENET_MEAN = (0.485, 0.456, 0.406)
IMAGENET_DEVIATION = (0.229, 0.224, 0.225)


@dataclass(frozen=True)
class Recipe:
    """Pixels are bytes, red, green, blue. The source takes (byte / range - mean) / deviation.

    range:     what white is divided by: 255 gives 0 to 1, 1 leaves bytes
    mean:      one value per channel of the source, in its order; or one for all
    deviation: the same
    bgr:       whether the source's channels are blue, green, red; None for what is usual
    fit:       how a picture comes to the network's size: "squash", "crop" or "letterbox"
    """

    range: float | None = None
    mean: Sequence[float] | None = None
    deviation: Sequence[float] | None = None
    bgr: bool | None = None
    fit: str = "squash"

    def resolved(self, channels: int) -> Recipe:
        """With the values that are not given: those that classifiers of photographs are usually
        trained with, if none is given and there are three channels; else 255, 0 and 1."""
        if (self.range, self.mean, self.deviation) == (None, None, None) and channels == 3:
            order = slice(None, None, -1 if self.bgr else 1)
            usual = {"mean": IMAGENET_MEAN[order], "deviation": IMAGENET_DEVIATION[order]}
            return replace(self, bgr=bool(self.bgr), range=255.0, **usual)
        return replace(
            self,
            bgr=bool(self.bgr),
            range=255.0 if self.range is None else self.range,
            mean=(0.0,) if self.mean is None else self.mean,
            deviation=(1.0,) if self.deviation is None else self.deviation,
        )

    def resolved_for_caffe(self) -> Recipe:
        """The same for Caffe: bytes, blue, green, red."""
        bgr = True if self.bgr is None else self.bgr
        range_ = 1.0 if self.range is None else self.range
        return replace(self, bgr=bgr, range=range_).resolved(1)

    def affine(self, channels: int) -> tuple[np.ndarray, np.ndarray]:
        """(scale, shift) of each of the source's channels: source = byte * scale + shift. Like the
        methods below, for a resolved recipe."""
        assert self.range is not None and self.mean is not None and self.deviation is not None
        mean, deviation = (_spread(v, channels) for v in (self.mean, self.deviation))
        if not np.isfinite([self.range, *mean, *deviation]).all():
            raise SourceError("range, mean and deviation must be finite numbers")
        if not (self.range and deviation.all()):
            raise SourceError("range and deviation must not be zero")
        return 1 / (self.range * deviation), -mean / deviation

    def order(self, channels: int) -> list[int]:
        """For each of the source's channels, which of ours it is."""
        if not self.bgr:
            return list(range(channels))
        if channels != 3:
            raise SourceError(f"blue, green, red are three channels, not {channels}")
        return [2, 1, 0]

    @classmethod
    def from_json(cls, values: dict[str, object]) -> Recipe:
        """What `to_json` wrote."""
        return cls(
            range=float(values["range"]),  # type: ignore[arg-type]
            mean=[float(v) for v in values["mean"]],  # type: ignore[attr-defined]
            deviation=[float(v) for v in values["deviation"]],  # type: ignore[attr-defined]
            bgr=values["source_order"] == "bgr",
        )

    def to_json(self) -> dict[str, object]:
        return {
            "range": self.range,
            "mean": list(self.mean or ()),
            "deviation": list(self.deviation or ()),
            "source_order": "bgr" if self.bgr else "rgb",
        }


def _spread(values: Sequence[float], channels: int) -> np.ndarray:
    if len(values) not in (1, channels):
        raise SourceError(f"{len(values)} values for {channels} channels")
    return np.broadcast_to(np.asarray(values, np.float64), (channels,))
