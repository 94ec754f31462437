"""The layer records of the model format: one dataclass per class keyword."""

from __future__ import annotations

from ..record_io import RecordReader
from ..tag_tree import Element
from .elementwise import BatchNorm, EltWise, Power, PRelu, Relu, Scale
from .layer import Layer, UnknownLayer
from .shape import Concat, Flatten, Permute, Reshape
from .spatial import DetectionOutput, L2Norm, Lrn, Pool, PriorBox, Softmax
from .weights import Conv, FullyConnected, GroupedConv


LAYER_CLASSES: dict[str, type[Layer]] = {
    layer_class.keyword: layer_class
    for layer_class in (
        Conv,
        GroupedConv,
        Concat,
        Power,
        Lrn,
        FullyConnected,
        Pool,
        Relu,
        PRelu,
        EltWise,
        BatchNorm,
        Scale,
        Flatten,
        Reshape,
        L2Norm,
        PriorBox,
        Permute,
        DetectionOutput,
        Softmax,
    )
}


def read_layer(element: Element, name: str, *, quantised: bool = False) -> Layer:
    """The layer of one record; `name` is what messages call it, `quantised` the network's flag."""
    reader = RecordReader(element, name, quantised=quantised)
    keyword = reader.text("class")
    links = {"inputs": reader.texts("input_layers"), "outputs": reader.texts("output_layers")}
    if keyword not in LAYER_CLASSES:
        return UnknownLayer(keyword=keyword, record=element, **links)
    reader.name = f'{name} ("{keyword}")'
    layer_class = LAYER_CLASSES[keyword]
    return layer_class(**layer_class.read_keys(reader), **links)
