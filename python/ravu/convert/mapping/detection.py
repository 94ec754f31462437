"""Prior boxes and detection output of single-shot detectors.

The engine stores four variances once per cell and cuts box sizes to whole pixels. Both are made
good in the layers that predict the offsets: with w the source's box width and w' the engine's, an
offset l of the source means (variance * l * w / w') for a centre and (variance * l + log(w / w'))
for a width, so that each becomes a scale and a shift of the channels of a location head.
"""

from __future__ import annotations

import math
from dataclasses import dataclass

import numpy as np

from ...model_file import Concat, Conv, DetectionOutput, Flatten, PriorBox
from ..graph import Refused
from ..values import Value
from .context import Context

CENTRE_SIZE = 2


@dataclass(frozen=True)
class Boxes:
    """The boxes of one cell: width and height of each, in pixels; the source's and the engine's."""

    source: np.ndarray
    engine: np.ndarray


def prior_box(context: Context) -> None:
    node, builder = context.node, context.builder
    feature, image = context.settled(0), context.value(1)
    if image.blob != builder.model.input_name:
        raise Refused("the second input must be the image", attribute="input 1")
    size = builder.model.input_size
    sizes, larger = node.get("min_size"), node.get("max_size")
    ratios, variance = node.get("aspect_ratio"), node.get("variance")
    if larger and len(larger) != len(sizes):
        raise Refused(f"{len(larger)} for {len(sizes)} least sizes", attribute="max_size")
    if not sizes or min(sizes) < 1 or len(variance) not in (1, 4):
        raise Refused("sizes below a pixel, or another number of variances than 1 or 4")
    image_size = tuple(node.get("image"))
    step_h, step_w = _steps(node.get("step"), image_size, feature)
    boxes = _boxes(sizes, larger, ratios)
    if node.get("clip") and not np.array_equal(boxes.source, boxes.engine):
        raise Refused(
            "cut at the image's border, and not of whole pixels",
            attribute="min_size",
            advice="use sizes of whole pixels",
        )
    layer = PriorBox(
        min_size=sizes,
        max_size=larger,
        aspect_ratios=ratios,
        variance=[1.0],
        num_priors=len(boxes.source),
        clip=node.get("clip"),
        img_h=0 if image_size == (size, size) else int(image_size[0]),
        img_w=0 if image_size == (size, size) else int(image_size[1]),
        step_h=step_h,
        step_w=step_w,
        offset=node.get("offset"),
    )
    count = feature.dims[1] * feature.dims[2] * len(boxes.source) * 4
    dims = (1, 2, 1, count)
    blob = builder.add(layer, [feature, image], context.output, dims)
    context.bind(Value(blob, dims, (1, 2, count), planar=False))
    variances = np.broadcast_to(np.asarray(variance, np.float64), (4,))
    builder.notes[blob] = (boxes, variances)


def _steps(steps: tuple[float, float], image: tuple[int, ...], feature: Value) -> tuple[int, int]:
    """Whole steps as they are, and 0 for what the engine derives by itself."""
    derived = [image[i] / feature.dims[i + 1] for i in range(2)]
    if all(not s or math.isclose(s, d, rel_tol=1e-6) for s, d in zip(steps, derived)):
        return 0, 0
    if any(s != int(s) or s <= 0 for s in steps):
        raise Refused(
            f"{steps}: neither whole nor the image's size divided by the map's",
            attribute="step",
            advice="use whole steps",
        )
    return int(steps[0]), int(steps[1])


def _boxes(sizes: list[float], larger: list[float], ratios: list[float]) -> Boxes:
    def of(whole: bool) -> np.ndarray:
        found = []
        for i, size in enumerate(sizes):
            size = int(size) if whole else size
            found.append((size, size))
            if larger:
                side = math.sqrt(size * (int(larger[i]) if whole else larger[i]))
                found.append((side, side))
            found += [(size * math.sqrt(r), size / math.sqrt(r)) for r in ratios]
        return np.array(found, np.float64)

    return Boxes(of(False), of(True))


def detection_output(context: Context) -> None:
    node, builder = context.node, context.builder
    location, scores, priors = (context.settled(i) for i in range(3))
    if node.get("keep_top_k") < 1:
        raise Refused(
            f"{node.get('keep_top_k')}: the number of rows must be known",
            attribute="keep_top_k",
            advice="use a positive number",
        )
    if not node.get("share_location"):
        raise Refused("0: one box per prior for all classes", attribute="share_location")
    if not node.get("encoded"):
        _encode(context, location, priors)
    classes = node.get("num_classes")
    layer = DetectionOutput(
        num_classes=classes,
        share_location=True,
        num_loc_classes=1,
        background_label_id=node.get("background"),
        code_type=node.get("code_type"),
        variance_encoded_in_target=True,
        top_k=node.get("top_k"),
        keep_top_k=node.get("keep_top_k"),
        confidence_threshold=node.get("confidence"),
        nms_threshold=node.get("nms"),
        eta=node.get("eta"),
    )
    count = priors.dims[3] // 4
    sizes = [int(np.prod(value.dims)) for value in (location, scores)]
    if sizes != [count * 4, count * classes]:
        raise Refused(f"{sizes} values for {count} boxes and {classes} classes")
    dims = (1, 1, node.get("keep_top_k"), 7)
    # The source's variances are not the engine's, so lists of priors cannot be compared.
    builder.hide({priors.blob, *_parts(context, priors.blob)})
    blob = builder.add(layer, [location, scores, priors], context.output, dims)
    context.bind(Value(blob, dims, dims, planar=False))


def _encode(context: Context, location: Value, priors: Value) -> None:
    """Multiply variances and corrections of size into the heads that predict the locations."""
    builder = context.builder
    heads = [_head(context, blob) for blob in _parts(context, location.blob)]
    notes = [builder.notes.get(blob) for blob in _parts(context, priors.blob)]
    if len(heads) != len(notes) or any(note is None for note in notes):
        raise Refused(
            f"{len(heads)} location heads for {len(notes)} lists of priors",
            advice="join the locations and the priors of the same maps",
        )
    for head, (boxes, variances) in zip(heads, notes):
        ratio = boxes.source / boxes.engine
        plain = (ratio == 1).all()
        if not plain and context.node.get("code_type") != CENTRE_SIZE:
            raise Refused(
                "sizes are not of whole pixels",
                attribute="min_size",
                advice="use sizes of whole pixels, or offsets of centre and size",
            )
        scale = np.tile(variances, (len(boxes.source), 1))
        scale[:, :2] *= ratio
        shift = np.zeros_like(scale)
        shift[:, 2:] = np.log(ratio)
        if len(head.kernels) != scale.size:
            raise Refused(
                f"a location head of {len(head.kernels)} channels for {len(boxes.source)} boxes"
            )
        builder.absorb_for_good(head, scale.ravel(), shift.ravel())


def _parts(context: Context, blob: str) -> list[str]:
    """The tensors that a tensor is joined of, or itself."""
    writer = context.builder.writer(blob)
    return list(writer.inputs) if isinstance(writer, Concat) else [blob]


def _head(context: Context, blob: str) -> Conv:
    """The convolution behind a flattened tensor."""
    writer = context.builder.writer(blob)
    while isinstance(writer, Flatten):
        writer = context.builder.writer(writer.inputs[0])
    if not isinstance(writer, Conv):
        raise Refused(
            "locations do not come from convolutions",
            attribute="input 0",
            advice="let nothing but a permutation and flattening follow the heads",
        )
    return writer
