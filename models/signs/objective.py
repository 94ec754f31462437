"""What the detector is trained for: which prior answers for which sign, and the loss.

The scheme is that of the single-shot detector: a prior answers for the sign that it overlaps by
`MATCH` or more, and every sign has at least the prior that fits it best. All boxes are left, top,
right, bottom as fractions of the picture.
"""

from __future__ import annotations

import torch
from network import VARIANCES
from torch import nn

MATCH = 0.45
# Priors without a sign that count in the loss, per prior with one.
NEGATIVES_PER_POSITIVE = 3


class Objective:
    """The loss of a batch; `priors` are the network's, (P, 4)."""

    def __init__(self, priors: torch.Tensor):
        self.priors = priors
        self.variances = torch.tensor(VARIANCES)

    def __call__(
        self,
        locations: torch.Tensor,
        scores: torch.Tensor,
        boxes: torch.Tensor,
        labels: torch.Tensor,
    ) -> torch.Tensor:
        """locations (N, P, 4), scores (N, P, classes), boxes (N, S, 4), labels (N, S), 0: none."""
        wanted, owner = self.match(boxes, labels)
        positive = wanted > 0
        signs = boxes.gather(1, owner[..., None].expand(-1, -1, 4))
        targets = self.encode(signs)[positive]
        location_loss = nn.functional.smooth_l1_loss(
            locations[positive], targets, reduction="sum"
        )
        every = nn.functional.cross_entropy(scores.transpose(1, 2), wanted, reduction="none")
        chosen = positive | hardest_negatives(every.detach(), positive)
        return (location_loss + every[chosen].sum()) / positive.sum().clamp(min=1)

    def match(self, boxes: torch.Tensor, labels: torch.Tensor) -> tuple[torch.Tensor, torch.Tensor]:
        """For each prior the label that it is to give and the sign (index into S) meant: (N, P)."""
        overlap = pairwise_overlaps(boxes, self.priors)
        overlap = overlap.masked_fill((labels == 0)[..., None], -1.0)
        best, owner = overlap.max(dim=1)
        favourite = overlap.argmax(dim=2)
        images = torch.arange(len(boxes))
        for sign in range(boxes.shape[1]):
            there = labels[:, sign] > 0
            chosen = (images[there], favourite[there, sign])
            owner[chosen] = sign
            best[chosen] = 1.0
        wanted = labels.gather(1, owner)
        return wanted.masked_fill(best < MATCH, 0), owner

    def encode(self, signs: torch.Tensor) -> torch.Tensor:
        """Signs (N, P, 4), one per prior, as the locations that the network is to give for them."""
        prior_centre, prior_size = _centre_and_size(self.priors)
        centre, size = _centre_and_size(signs)
        moved = (centre - prior_centre) / prior_size
        scaled = (size.clamp(min=1e-6) / prior_size).log()
        return torch.cat([moved, scaled], dim=-1) / self.variances


def hardest_negatives(loss: torch.Tensor, positive: torch.Tensor) -> torch.Tensor:
    """The priors without a sign that are most mistaken, a few for each one with a sign: (N, P)."""
    order = loss.masked_fill(positive, -1.0).argsort(dim=1, descending=True)
    rank = order.argsort(dim=1)
    allowed = (NEGATIVES_PER_POSITIVE * positive.sum(dim=1, keepdim=True)).clamp(min=4)
    return (rank < allowed) & ~positive


def pairwise_overlaps(boxes: torch.Tensor, priors: torch.Tensor) -> torch.Tensor:
    """Intersection over union of boxes (N, S, 4) with priors (P, 4): (N, S, P)."""
    boxes = boxes[:, :, None]
    low = torch.maximum(boxes[..., :2], priors[:, :2])
    high = torch.minimum(boxes[..., 2:], priors[:, 2:])
    common = (high - low).clamp(min=0).prod(dim=-1)
    union = _area(boxes) + _area(priors) - common
    return common / union


def _area(boxes: torch.Tensor) -> torch.Tensor:
    return (boxes[..., 2:] - boxes[..., :2]).prod(dim=-1)


def _centre_and_size(boxes: torch.Tensor) -> tuple[torch.Tensor, torch.Tensor]:
    return (boxes[..., :2] + boxes[..., 2:]) / 2, boxes[..., 2:] - boxes[..., :2]
