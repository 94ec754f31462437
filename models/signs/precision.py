"""Mean average precision: how good a detector's boxes are, over all its thresholds."""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np
from reference import Detection, overlaps

# A detection is right when it overlaps a sign of its class, not found yet, by at least this.
RIGHT = 0.5

# The true signs of a picture: labels (n,) and boxes (n, 4), in the units of the detections' boxes.
Truth = tuple[np.ndarray, np.ndarray]


def average_precisions(
    detections: Sequence[Sequence[Detection]], truths: Sequence[Truth], classes: Sequence[int]
) -> dict[int, float]:
    """The average precision of each class; detections and truths of the same pictures, in order.

    It is the area under precision over recall, each precision being the best at that recall or a
    higher one, as in the PASCAL VOC challenge from 2010 on. Classes that no picture shows are left
    out.
    """
    result = {}
    for label in classes:
        signs = [boxes[labels == label] for labels, boxes in truths]
        total = sum(map(len, signs))
        if total:
            found = [[one for one in picture if one.label == label] for picture in detections]
            result[label] = _area(_verdicts(found, signs), total)
    return result


def _verdicts(found: list[list[Detection]], signs: list[np.ndarray]) -> np.ndarray:
    """Whether each detection of one class is right, in order of falling scores.

    A sign belongs to the best-scored detection that overlaps it more than any other sign of the
    picture; others that find it again are wrong.
    """
    ranked = sorted(
        ((one.score, picture, one.box) for picture, some in enumerate(found) for one in some),
        key=lambda entry: -entry[0],
    )
    taken = [np.zeros(len(boxes), bool) for boxes in signs]
    verdicts = np.zeros(len(ranked), bool)
    for rank, (_, picture, box) in enumerate(ranked):
        if len(signs[picture]):
            overlap = overlaps(box, signs[picture])
            best = overlap.argmax()
            verdicts[rank] = overlap[best] >= RIGHT and not taken[picture][best]
            taken[picture][best] |= verdicts[rank]
    return verdicts


def _area(verdicts: np.ndarray, total: int) -> float:
    """The area under the envelope of precision over recall."""
    right = verdicts.cumsum()
    precision = right / np.arange(1, len(verdicts) + 1)
    envelope = np.maximum.accumulate(precision[::-1])[::-1]
    # Recall grows by one sign at each right detection and nowhere else.
    return float(envelope[verdicts].sum() / total)
