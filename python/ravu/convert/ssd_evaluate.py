"""Runs a detector that was cut at its heads: the heads by ONNX Runtime, the rest in numpy."""

from __future__ import annotations

from pathlib import Path
from types import SimpleNamespace

import numpy as np

from .caffe.detection import detection_output, prior_box
from .ssd import OUTPUT, Detector
from .verify import OnnxSource


class SsdSource:
    """Fetches the source's tensors, and the table of detections that is made from its heads."""

    def __init__(self, path: Path, detector: Detector, tensors: list[str]) -> None:
        heads = [name for entry in detector.maps for name in (entry.locations, entry.scores)]
        self.tensors = tensors
        self._detector = detector
        self._source = OnnxSource(path, {*heads, *tensors} - {OUTPUT})

    def run(self, pixels: np.ndarray) -> dict[str, np.ndarray]:
        """All tensors for an input of (1, channels, height, width)."""
        values = self._source.run(pixels)
        values[OUTPUT] = self._detections(values, pixels)
        return {name: values[name] for name in self.tensors}

    def _detections(self, values: dict[str, np.ndarray], pixels: np.ndarray) -> np.ndarray:
        d = self._detector
        locations, scores, priors = [], [], []
        for entry in d.maps:
            for head, found in ((entry.locations, locations), (entry.scores, scores)):
                found.append(values[head].transpose(0, 2, 3, 1).reshape(1, -1))
            layer = _layer(
                "prior_box_param",
                min_size=[entry.min_size],
                flip=False,
                clip=d.clip,
                max_size=[entry.max_size] if entry.max_size else [],
                aspect_ratio=entry.aspect_ratios,
                variance=d.variances,
                img_size=0,
                img_h=0,
                img_w=0,
                step=entry.step,
                step_h=0,
                step_w=0,
                offset=d.offset,
            )
            priors.append(prior_box(layer, values[entry.locations], pixels))
        rows = np.concatenate(scores, axis=1).reshape(-1, d.classes).astype(np.float64)
        if d.softmax:
            rows = np.exp(rows - rows.max(axis=1, keepdims=True))
            rows /= rows.sum(axis=1, keepdims=True)
        nms = SimpleNamespace(
            nms_threshold=d.nms_threshold, top_k=d.top_k, eta=1.0, HasField=lambda name: True
        )
        layer = _layer(
            "detection_output_param",
            num_classes=d.classes,
            background_label_id=d.background,
            nms_param=nms,
            code_type=2,
            variance_encoded_in_target=False,
            keep_top_k=d.keep_top_k,
            confidence_threshold=d.confidence_threshold,
        )
        located = np.concatenate(locations, axis=1)
        return np.float32(detection_output(layer, located, rows, np.concatenate(priors, axis=2)))


def _layer(parameter: str, **values: object) -> SimpleNamespace:
    return SimpleNamespace(message=SimpleNamespace(**{parameter: SimpleNamespace(**values)}))
