"""What a model file says about itself, without the weights: labels, layers, model card."""

from __future__ import annotations

import json
import os
from dataclasses import dataclass
from pathlib import Path

from . import tag_tree
from .record_io import RecordReader
from .records import LAYER_CLASSES
from .tag_tree import ModelFileError

CARD_KEY = "model_card"
MOST_LABEL_OFFSET = 1_000_000


@dataclass(frozen=True)
class Outline:
    """takes:    rows and columns of an input, and values per pixel
    labels:   the names of the classes
    layer_of: for each tensor the index, in execution order, of the last layer that writes it
    card:     the model card, or None
    """

    takes: tuple[int, int]
    labels: list[str]
    layer_of: dict[str, int]
    card: dict[str, object] | None

    @property
    def label_offset(self) -> int:
        """The score that the first label belongs to: what the card says, if it is a whole number
        up to `MOST_LABEL_OFFSET`, else 0."""
        offset = (self.card or {}).get("label_offset", 0)
        whole = isinstance(offset, int) and not isinstance(offset, bool)
        return offset if whole and 0 <= offset <= MOST_LABEL_OFFSET else 0


def read_outline(path: str | os.PathLike[str]) -> Outline:
    """Raises `ModelFileError` for a damaged file, `OSError` for an unreadable one."""
    return _outline(Path(path).read_bytes())


def _outline(data: bytes) -> Outline:
    reader = RecordReader(tag_tree.parse(data), "network")
    layer_of: dict[str, int] = {}
    index = int(_has_crop(reader))
    for element in reader.items("layers"):
        layer = RecordReader(element, "layer")
        if layer.text("class") not in LAYER_CLASSES:
            continue
        layer_of.update(dict.fromkeys(layer.texts("output_layers"), index))
        index += 1
    takes = (reader.int("input_size"), reader.int("input_channel_num"))
    return Outline(takes, reader.texts("label_names"), layer_of, card_of(reader))


def _has_crop(reader: RecordReader) -> bool:
    """Whether the loader puts a centre crop in front of the layers of the file."""
    return reader.flag("need_crop", True) and reader.int("input_size") != reader.int("image_size")


def card_of(reader: RecordReader) -> dict[str, object] | None:
    """The model card of a root record. Raises `ModelFileError` for one that is no JSON object."""
    text = reader.text(CARD_KEY, "")
    if not text:
        return None
    try:
        card = json.loads(text)
    except ValueError:
        card = None
    if not isinstance(card, dict):
        raise ModelFileError(f'network: "{CARD_KEY}" is no JSON object')
    return card
