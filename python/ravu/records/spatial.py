"""Records of the pooling, normalising and detection layers."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any, ClassVar

import numpy as np

from ..record_io import RecordReader, RecordWriter
from ..tag_tree import ModelFileError
from .layer import Layer


@dataclass(kw_only=True, eq=False)
class Pool(Layer):
    """Pooling over square windows, "max" or "avg"; averages divide by the full window's area.

    The output has ceil((2 * padding - size + input) / stride) + 1 rows and columns.
    """

    keyword: ClassVar[str] = "pool"
    MODES: ClassVar[tuple[str, ...]] = ("max", "avg")

    size: int
    stride: int
    padding_w: int = 0
    padding_h: int = 0
    mode: str = "max"

    def __post_init__(self) -> None:
        if self.mode not in self.MODES:
            raise ModelFileError(f"unknown pooling mode {self.mode!r}")

    def write_keys(self, writer: RecordWriter) -> None:
        writer.int("psize", self.size)
        writer.int("stride", self.stride)
        writer.int("paddingW", self.padding_w)
        writer.int("paddingH", self.padding_h)
        writer.text("mode", self.mode)

    @classmethod
    def read_keys(cls, reader: RecordReader) -> dict[str, Any]:
        return {
            "size": reader.int("psize"),
            "stride": reader.int("stride"),
            "padding_w": reader.int("paddingW", 0),
            "padding_h": reader.int("paddingH", 0),
            # Kept: exactly "max" selects the maximum, any other text the average.
            "mode": "max" if reader.text("mode") == "max" else "avg",
        }


@dataclass(kw_only=True, eq=False)
class Lrn(Layer):
    """x / (k + alpha / size * sum of squares over `size` neighbouring channels) ^ beta."""

    keyword: ClassVar[str] = "normalize"

    size: int
    k: float
    alpha: float
    beta: float

    def write_keys(self, writer: RecordWriter) -> None:
        writer.int("size", self.size)
        writer.float("k", self.k)
        writer.float("alpha", self.alpha)
        writer.float("beta", self.beta)

    @classmethod
    def read_keys(cls, reader: RecordReader) -> dict[str, Any]:
        return {
            "size": reader.int("size"),
            "k": reader.float("k"),
            "alpha": reader.float("alpha"),
            "beta": reader.float("beta"),
        }


@dataclass(kw_only=True, eq=False)
class L2Norm(Layer):
    """Each pixel's channels divided by their length, times a scale.

    `scale` has one value with `channel_shared`, else one per channel.
    """

    keyword: ClassVar[str] = "norm"

    scale: np.ndarray
    across_spatial: bool = False
    channel_shared: bool = False

    def write_keys(self, writer: RecordWriter) -> None:
        writer.int("across_spatial", self.across_spatial)
        writer.int("channel_shared", self.channel_shared)
        writer.vector("scale", self.scale)

    @classmethod
    def read_keys(cls, reader: RecordReader) -> dict[str, Any]:
        return {
            "across_spatial": reader.flag("across_spatial"),
            "channel_shared": reader.flag("channel_shared"),
            "scale": reader.vector("scale"),
        }


@dataclass(kw_only=True, eq=False)
class Softmax(Layer):
    """Softmax over the channels of each pixel; over the whole plane where there is one channel."""

    keyword: ClassVar[str] = "max"


@dataclass(kw_only=True, eq=False)
class PriorBox(Layer):
    """Default boxes of a detector for each cell of the first input; the second is the image.

    Sizes, image sides and steps are in image pixels; `offset` is in cells. Image sides and steps of
    0 are derived from the inputs. `num_priors` is the number of boxes per cell and must agree with
    the lists. `variance` has one or four values (x, y, width, height).
    """

    keyword: ClassVar[str] = "priorbox"

    min_size: Sequence[float]
    num_priors: int
    max_size: Sequence[float] = ()
    aspect_ratios: Sequence[float] = ()
    variance: Sequence[float] = (0.1, 0.1, 0.2, 0.2)
    flip: bool = False
    clip: bool = False
    img_h: int = 0
    img_w: int = 0
    step_h: int = 0
    step_w: int = 0
    offset: float = 0.5

    def write_keys(self, writer: RecordWriter) -> None:
        writer.float("offset", self.offset)
        writer.int("flip", self.flip)
        writer.int("num_priors", self.num_priors)
        writer.int("clip", self.clip)
        writer.int("img_h", self.img_h)
        writer.int("img_w", self.img_w)
        writer.int("step_h", self.step_h)
        writer.int("step_w", self.step_w)
        writer.floats("aspect_ratios", self.aspect_ratios)
        writer.floats("variance", self.variance)
        writer.floats("min_size", self.min_size)
        writer.floats("max_size", self.max_size)

    @classmethod
    def read_keys(cls, reader: RecordReader) -> dict[str, Any]:
        return {
            "offset": reader.float("offset"),
            "flip": reader.flag("flip"),
            "num_priors": reader.int("num_priors"),
            "clip": reader.flag("clip"),
            "img_h": reader.int("img_h"),
            "img_w": reader.int("img_w"),
            "step_h": reader.int("step_h"),
            "step_w": reader.int("step_w"),
            "aspect_ratios": reader.floats("aspect_ratios"),
            "variance": reader.floats("variance"),
            "min_size": reader.floats("min_size"),
            "max_size": reader.floats("max_size"),
        }


@dataclass(kw_only=True, eq=False)
class DetectionOutput(Layer):
    """Boxes out of a detector's three inputs: locations, confidences, priors.

    The output has `keep_top_k` rows of image, label, score and four corners (0 to 1).
    `code_type` is 1 for corners, 2 for centre and size, 3 for corners relative to the prior's size.
    """

    keyword: ClassVar[str] = "detectionout"

    num_classes: int
    keep_top_k: int
    top_k: int
    share_location: bool = True
    num_loc_classes: int = 1
    background_label_id: int = 0
    code_type: int = 2
    variance_encoded_in_target: bool = False
    confidence_threshold: float = 0.01
    nms_threshold: float = 0.45
    eta: float = 1.0

    def write_keys(self, writer: RecordWriter) -> None:
        writer.int("num_classes", self.num_classes)
        writer.int("share_location", self.share_location)
        writer.int("num_loc_classes", self.num_loc_classes)
        writer.int("background_label_id", self.background_label_id)
        writer.int("code_type", self.code_type)
        writer.int("variance_encoded_in_target", self.variance_encoded_in_target)
        writer.int("keep_top_k", self.keep_top_k)
        writer.float("confidence_threshold", self.confidence_threshold)
        writer.float("nms_threshold", self.nms_threshold)
        writer.float("eta", self.eta)
        writer.int("top_k", self.top_k)

    @classmethod
    def read_keys(cls, reader: RecordReader) -> dict[str, Any]:
        return {
            "num_classes": reader.int("num_classes"),
            "share_location": reader.flag("share_location"),
            "num_loc_classes": reader.int("num_loc_classes"),
            "background_label_id": reader.int("background_label_id"),
            "code_type": reader.int("code_type"),
            "variance_encoded_in_target": reader.flag("variance_encoded_in_target"),
            "keep_top_k": reader.int("keep_top_k"),
            "confidence_threshold": reader.float("confidence_threshold"),
            "nms_threshold": reader.float("nms_threshold"),
            "eta": reader.float("eta"),
            "top_k": reader.int("top_k"),
        }
