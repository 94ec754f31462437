"""The numpy evaluation of prior boxes and detection output."""

from __future__ import annotations

from typing import Any

import numpy as np

Layer = Any


def prior_box(layer: Layer, feature: np.ndarray, image: np.ndarray) -> np.ndarray:
    """(1, 2, boxes * 4): corners as fractions of the image, then variances."""
    p = layer.message.prior_box_param
    height, width = image.shape[2:]
    if p.img_size or p.img_h or p.img_w:
        height, width = p.img_size or p.img_h, p.img_size or p.img_w
    rows, columns = feature.shape[2:]
    step_y = p.step or p.step_h or height / rows
    step_x = p.step or p.step_w or width / columns
    shapes = []
    ratios = [1.0]
    for ratio in p.aspect_ratio:
        if min(abs(ratio - r) for r in ratios) < 1e-6:
            continue
        ratios += [ratio, 1 / ratio] if p.flip else [ratio]
    for i, least in enumerate(p.min_size):
        shapes.append((least, least))
        if p.max_size:
            side = np.sqrt(least * p.max_size[i])
            shapes.append((side, side))
        shapes += [(least * np.sqrt(r), least / np.sqrt(r)) for r in ratios[1:]]
    boxes = []
    for y in range(rows):
        for x in range(columns):
            centre_x, centre_y = (x + p.offset) * step_x, (y + p.offset) * step_y
            for w, h in shapes:
                corners = (centre_x - w / 2, centre_y - h / 2, centre_x + w / 2, centre_y + h / 2)
                boxes.append(np.array(corners) / (width, height, width, height))
    found = np.array(boxes)
    if p.clip:
        found = found.clip(0, 1)
    variances = np.broadcast_to(list(p.variance) or [0.1], (len(found), 4))
    return np.stack([found.ravel(), variances.ravel()])[None]


def detection_output(
    layer: Layer, location: np.ndarray, scores: np.ndarray, priors: np.ndarray
) -> np.ndarray:
    """(1, 1, keep_top_k, 7): image, label, score, corners; unused rows are zero."""
    p = layer.message.detection_output_param
    boxes = _decode(p, location.reshape(-1, 4).astype(np.float64), priors[0].astype(np.float64))
    scores = scores.reshape(-1, p.num_classes)
    rows = []
    for label in range(p.num_classes):
        if label != p.background_label_id:
            kept = _suppress(p, boxes, scores[:, label])
            rows += [(0, label, scores[i, label], *boxes[i]) for i in kept]
    best = sorted(rows, key=lambda row: -row[2])[: p.keep_top_k]
    table = np.zeros((p.keep_top_k, 7))
    if best:
        table[: len(best)] = sorted(best, key=lambda row: (row[1], -row[2]))
    return table[None, None]


def _decode(p: Any, offsets: np.ndarray, priors: np.ndarray) -> np.ndarray:
    corners, variances = priors[0].reshape(-1, 4), priors[1].reshape(-1, 4)
    if not p.variance_encoded_in_target:
        offsets = offsets * variances
    size = corners[:, 2:] - corners[:, :2]
    if p.code_type == 1:
        return corners + offsets
    if p.code_type == 3:
        return corners + offsets * np.hstack([size, size])
    centre = (corners[:, :2] + corners[:, 2:]) / 2 + offsets[:, :2] * size
    half = np.exp(offsets[:, 2:]) * size / 2
    return np.hstack([centre - half, centre + half])


def _suppress(p: Any, boxes: np.ndarray, scores: np.ndarray) -> list[int]:
    order = np.argsort(-scores, kind="stable")
    order = order[scores[order] > p.confidence_threshold]
    if p.nms_param.HasField("top_k") and p.nms_param.top_k >= 0:
        order = order[: p.nms_param.top_k]
    threshold = p.nms_param.nms_threshold
    kept: list[int] = []
    for i in order:
        if kept and (_overlaps(boxes[i], boxes[kept]) > threshold).any():
            continue
        kept.append(int(i))
        if p.nms_param.eta < 1 and threshold > 0.5:
            threshold *= p.nms_param.eta
    return kept


def _overlaps(box: np.ndarray, others: np.ndarray) -> np.ndarray:
    low, high = np.maximum(box[:2], others[:, :2]), np.minimum(box[2:], others[:, 2:])
    common = (high - low).clip(0).prod(axis=1)
    areas = (others[:, 2:] - others[:, :2]).prod(axis=1)
    return common / (areas + (box[2:] - box[:2]).prod() - common)
