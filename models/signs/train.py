#!/usr/bin/python3
"""Train the sign detector and write signs.ravu.

Draws its own scenes, trains on the processor, writes the model file, and measures it: a numpy
evaluation of the file that was written must agree with the trained network, and its mean average
precision on held-out scenes is printed. Needs PyTorch and Pillow (see README.md).
"""

from __future__ import annotations

import argparse
import random
import time
from pathlib import Path

import numpy as np
import torch
from series import Inputs, evaluation_inputs, training_inputs
from network import VARIANCES, Network, all_priors, to_model
from objective import Objective
from precision import average_precisions
from reference import Model, detect, evaluate
from scenes import HELD_OUT_SERIES, draw_scene
from signs import LABELS
from torch import nn

MODEL_PATH = Path(__file__).with_name("signs.ravu")
SEED = 7
BATCH = 16
MAX_FILE_BYTES = 2 * 2**20


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--scenes", type=int, default=10_000, help="training scenes to draw")
    parser.add_argument("--epochs", type=int, default=5, help="passes over them")
    parser.add_argument("--held-out", type=int, default=500, help="scenes to measure on")
    parser.add_argument("--threads", type=int, default=2, help="processor cores to use")
    parser.add_argument("--cache", type=Path, help="keep the drawn scenes in this .npz file")
    parser.add_argument("--output", type=Path, default=MODEL_PATH, help="the model file to write")
    options = parser.parse_args()

    random.seed(SEED)
    torch.manual_seed(SEED)
    torch.set_num_threads(options.threads)

    inputs = draw_or_load(options.scenes, options.threads, options.cache)
    network = Network()
    train(network, inputs, options.epochs)

    to_model(network).write(options.output)
    size = options.output.stat().st_size
    print(f"wrote {options.output.name}, {size} bytes")
    if size >= MAX_FILE_BYTES:
        raise SystemExit("the model file is too large")
    model = Model.read(options.output)
    held_out = evaluation_inputs(
        [draw_scene(HELD_OUT_SERIES, index) for index in range(options.held_out)]
    )
    check_file(model, network, held_out.pixels[:64])
    measure(model, held_out)


def draw_or_load(count: int, workers: int, cache: Path | None) -> Inputs:
    if cache is not None and cache.exists():
        with np.load(cache) as stored:
            return Inputs(**stored)
    start = time.monotonic()
    inputs = training_inputs(count, workers)
    print(f"drew {count} scenes in {time.monotonic() - start:.0f} s", flush=True)
    if cache is not None:
        np.savez(cache, **vars(inputs))
    return inputs


def train(network: Network, inputs: Inputs, epochs: int) -> None:
    """One learning rate cycle over `epochs` passes, with variations of each scene."""
    pixels, boxes, labels = map(torch.from_numpy, (inputs.pixels, inputs.boxes, inputs.labels))
    steps = len(pixels) // BATCH
    optimiser = torch.optim.AdamW(network.parameters(), weight_decay=0.01)
    schedule = torch.optim.lr_scheduler.OneCycleLR(optimiser, 3e-3, epochs * steps, pct_start=0.15)
    objective = Objective(torch.from_numpy(all_priors()).float())
    network.train()
    for epoch in range(epochs):
        start, total = time.monotonic(), 0.0
        order = torch.randperm(len(pixels))
        for step in range(steps):
            chosen = order[step * BATCH : (step + 1) * BATCH]
            batch = pixels[chosen].permute(0, 3, 1, 2).float()
            views, placed, kept = moved(recoloured(batch), boxes[chosen], labels[chosen])
            loss = objective(*network(views), placed, kept)
            optimiser.zero_grad(set_to_none=True)
            loss.backward()
            nn.utils.clip_grad_norm_(network.parameters(), 10.0)
            optimiser.step()
            schedule.step()
            total += loss.item()
        seconds = time.monotonic() - start
        print(f"epoch {epoch + 1}: loss {total / steps:.3f}, {seconds:.0f} s", flush=True)


def recoloured(batch: torch.Tensor) -> torch.Tensor:
    """Some pictures as negatives, colours exchanged, contrast and brightness varied."""
    negative = torch.rand(len(batch), 1, 1, 1) < 0.5
    batch = torch.where(negative, 255 - batch, batch)[:, torch.randperm(3)]
    contrast = torch.empty(len(batch), 1, 1, 1).uniform_(0.7, 1.3)
    brightness = torch.empty(len(batch), 3, 1, 1).uniform_(-30, 30)
    return ((batch - 127.5) * contrast + 127.5 + brightness).clamp(0, 255)


def moved(
    batch: torch.Tensor, boxes: torch.Tensor, labels: torch.Tensor
) -> tuple[torch.Tensor, torch.Tensor, torch.Tensor]:
    """Each picture mirrored or not, zoomed and shifted; boxes follow.

    Signs of which less than half remains lose their label.
    """
    n = len(batch)
    zoom = torch.empty(n, 2).uniform_(0.85, 1.3) * torch.empty(n, 1).uniform_(0.95, 1.05)
    shift = torch.empty(n, 2).uniform_(-0.12, 0.12)
    mirror = torch.where(torch.rand(n) < 0.5, -1.0, 1.0)
    # From the new picture to the old one, in coordinates from -1 to 1.
    matrix = torch.zeros(n, 2, 3)
    matrix[:, 0, 0], matrix[:, 1, 1] = mirror / zoom[:, 0], 1 / zoom[:, 1]
    matrix[:, :, 2] = shift
    grid = nn.functional.affine_grid(matrix, list(batch.shape), align_corners=False)
    views = nn.functional.grid_sample(batch, grid, padding_mode="border", align_corners=False)
    # The same the other way round: old = scale * new + shift.
    scale = torch.stack([mirror / zoom[:, 0], 1 / zoom[:, 1]], dim=1)[:, None]
    corners = (2 * boxes - 1).view(n, -1, 2, 2)
    placed = ((corners - shift[:, None, None]) / scale[:, :, None] + 1) / 2
    low, high = placed.min(dim=2).values, placed.max(dim=2).values
    whole = (high - low).prod(dim=2)
    low, high = low.clamp(0, 1), high.clamp(0, 1)
    kept = (high - low).prod(dim=2) >= 0.5 * whole
    return views, torch.cat([low, high], dim=2), labels.masked_fill(~kept, 0)


def check_file(model: Model, network: Network, pixels: np.ndarray) -> None:
    """Compare the written file, evaluated without PyTorch, with what the network says."""
    network.eval()
    with torch.no_grad():
        tensors = network(torch.from_numpy(pixels).permute(0, 3, 1, 2).float())
    locations, scores = (tensor.numpy() for tensor in tensors)
    blobs = evaluate(model, pixels)
    pairs = ((blobs["location_row"], locations * np.array(VARIANCES)), (blobs["scores"], scores))
    difference = max(np.abs(a.ravel() - b.ravel()).max() for a, b in pairs)
    print(f"largest difference between the file and the network: {difference:.1e}")
    if difference > 1e-3:
        raise SystemExit("the written file does not compute what was trained")


def measure(model: Model, held_out: Inputs) -> None:
    """Print the mean average precision of the file, evaluated in numpy."""
    detections = []
    for start in range(0, len(held_out.pixels), 50):
        detections += detect(model, held_out.pixels[start : start + 50])
    truths = [(l[l > 0], b[l > 0]) for l, b in zip(held_out.labels, held_out.boxes)]
    each = average_precisions(detections, truths, range(1, len(LABELS)))
    for label, value in each.items():
        print(f"  {LABELS[label]}: {value:.3f}")
    mean = np.mean(list(each.values()))
    print(f"mAP at 0.5 (numpy) on {len(truths)} held-out scenes: {mean:.3f}")


if __name__ == "__main__":
    main()
