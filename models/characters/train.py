#!/usr/bin/python3
"""Train the character classifier and write characters.ravu.

Draws its own pictures, trains on the processor for about a quarter of an hour, writes the model
file, and checks it: a numpy evaluation of the file that was written must agree with the trained
network.
Needs PyTorch, Pillow and the font packages of fonts.txt (see README.md).
"""

from __future__ import annotations

import argparse
import random
import time
from pathlib import Path

import numpy as np
import torch
from dataset import as_input, held_out_samples, training_inputs
from evaluate import probabilities
from network import Model, Network, to_model
from torch import nn

MODEL_PATH = Path(__file__).with_name("characters.ravu")
SEED = 7
BATCH = 128
MAX_FILE_BYTES = 2**20


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--pictures", type=int, default=100_000, help="training pictures to draw")
    parser.add_argument("--epochs", type=int, default=5, help="passes over them")
    parser.add_argument("--held-out", type=int, default=4000, help="pictures to measure on")
    parser.add_argument("--threads", type=int, default=2, help="processor cores to use")
    parser.add_argument("--output", type=Path, default=MODEL_PATH, help="the model file to write")
    options = parser.parse_args()

    random.seed(SEED)
    torch.manual_seed(SEED)
    torch.set_num_threads(options.threads)

    start = time.monotonic()
    inputs, labels = training_inputs(options.pictures, options.threads)
    print(f"drew {len(inputs)} pictures in {time.monotonic() - start:.0f} s", flush=True)
    samples = held_out_samples(options.held_out)
    held_out = np.stack([as_input(sample.image) for sample in samples])
    truth = np.array([sample.label for sample in samples])

    network = Network(inputs.mean(axis=(0, 1, 2)))
    train(network, inputs, labels, options.epochs)
    guesses = predict(network, held_out)
    accuracy = (guesses.argmax(axis=1) == truth).mean()
    print(f"held-out accuracy (PyTorch): {accuracy:.2%} of {len(truth)}")

    to_model(network).write(options.output)
    size = options.output.stat().st_size
    print(f"wrote {options.output.name}, {size} bytes")
    if size >= MAX_FILE_BYTES:
        raise SystemExit("the model file is too large")
    check_file(Model.read(options.output), held_out[:256], guesses[:256])


def train(network: Network, inputs: np.ndarray, labels: np.ndarray, epochs: int) -> None:
    """One learning rate cycle over `epochs` passes, with cheap variations of each picture."""
    pixels, targets = torch.from_numpy(inputs), torch.from_numpy(labels)
    steps = len(pixels) // BATCH
    optimiser = torch.optim.AdamW(network.parameters(), weight_decay=0.02)
    schedule = torch.optim.lr_scheduler.OneCycleLR(optimiser, 4e-3, epochs * steps, pct_start=0.2)
    loss_of = nn.CrossEntropyLoss(label_smoothing=0.05)
    network.to(memory_format=torch.channels_last).train()
    for epoch in range(epochs):
        start, total = time.monotonic(), 0.0
        order = torch.randperm(len(pixels))
        for step in range(steps):
            chosen = order[step * BATCH : (step + 1) * BATCH]
            batch = pixels[chosen].permute(0, 3, 1, 2).float()
            loss = loss_of(network(varied(batch)), targets[chosen])
            optimiser.zero_grad(set_to_none=True)
            loss.backward()
            optimiser.step()
            schedule.step()
            total += loss.item()
        seconds = time.monotonic() - start
        print(f"epoch {epoch + 1}: loss {total / steps:.3f}, {seconds:.0f} s", flush=True)


def varied(batch: torch.Tensor) -> torch.Tensor:
    """Some pictures as negatives, colours exchanged, and the batch moved by up to two pixels."""
    negative = torch.rand(len(batch), 1, 1, 1) < 0.5
    batch = torch.where(negative, 255 - batch, batch)[:, torch.randperm(3)]
    padded = nn.functional.pad(batch, (2, 2, 2, 2), mode="replicate")
    x, y = torch.randint(0, 5, (2,)).tolist()
    moved = padded[:, :, y : y + batch.shape[2], x : x + batch.shape[3]]
    return moved.contiguous(memory_format=torch.channels_last)


def predict(network: Network, inputs: np.ndarray) -> np.ndarray:
    """Class probabilities (N, 36) of inputs (uint8, NHWC)."""
    network.eval()
    with torch.no_grad():
        batches = torch.from_numpy(inputs).permute(0, 3, 1, 2).float().split(500)
        return torch.cat([network(batch).softmax(dim=1) for batch in batches]).numpy()


def check_file(model: Model, inputs: np.ndarray, expected: np.ndarray) -> None:
    """Compare the written file, evaluated without PyTorch, with what the network said."""
    difference = np.abs(probabilities(model, inputs) - expected).max()
    print(f"largest difference between the file and the network: {difference:.1e}")
    if difference > 1e-4:
        raise SystemExit("the written file does not compute what was trained")


if __name__ == "__main__":
    main()
