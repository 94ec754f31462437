"""Pictures with signs in them, made to look like photographs, and where the signs are.

Everything is drawn from one random generator, so a series and an index always give the same scene.
Lengths are pixels of the picture unless they say otherwise, angles radians, colours 0 to 255.
"""

from __future__ import annotations

import io
from dataclasses import dataclass

import numpy as np
from PIL import Image, ImageDraw, ImageFilter
from signs import LABELS, SIGNS, Paint, Sign, bounds, draw_sign

RANDOM = np.random.Generator
BRIGHTNESS = np.array([0.3, 0.59, 0.11])

# A series is a seed; its scenes are numbered from 0.
TRAINING_SERIES = 11
HELD_OUT_SERIES = 12
EXAMPLE_SERIES = 13

# The longer side of a sign, as a fraction of the picture's shorter side.
SMALLEST, LARGEST = 0.14, 0.62
# What must remain visible of a sign when others stand in front of it.
VISIBLE = 0.65


@dataclass(frozen=True)
class Scene:
    """A picture and its signs.

    boxes:  (n, 4) left, top, right, bottom in pixels: the whole sign, hidden parts included, as far
            as it lies in the picture
    labels: (n,) indices into LABELS
    """

    image: Image.Image
    boxes: np.ndarray
    labels: np.ndarray


def draw_scene(series: int, index: int) -> Scene:
    """Scene number `index` of a series: 1 to 6 signs, each side 160 to 320 pixels."""
    rng = np.random.default_rng([series, index])
    size = _picture_size(rng)
    picture = _to_image(_background(size, rng))
    _draw_clutter(picture, int(rng.integers(0, 7)), rng)
    boxes, labels = _place_signs(picture, int(rng.integers(1, 7)), rng)
    if rng.random() < 0.3:
        _draw_twigs(picture, rng)
    picture = _with_optics(picture, rng)
    if rng.random() < 0.4:
        picture = _as_jpeg(picture, rng)
    return Scene(picture, np.array(boxes).reshape(-1, 4), np.array(labels, np.int64))


def _picture_size(rng: RANDOM) -> tuple[int, int]:
    """Width and height; half of the pictures are not square."""
    side = int(rng.integers(160, 257))
    other = round(side * rng.uniform(1.0, 1.25)) if rng.random() < 0.5 else side
    return (side, other) if rng.random() < 0.3 else (other, side)


def _place_signs(
    picture: Image.Image, count: int, rng: RANDOM
) -> tuple[list[np.ndarray], list[int]]:
    """Paste up to `count` signs; a sign for which no place is found is left out."""
    size = np.array(picture.size)
    owner = np.full(picture.size[::-1], -1)
    areas: list[int] = []
    boxes, labels = [], []
    for _ in range(count):
        label = int(rng.integers(1, len(LABELS)))
        sign = SIGNS[LABELS[label]]
        pose = _pose(sign, min(picture.size), rng)
        variant = int(rng.integers(len(sign.marks)))
        for _ in range(12):
            place = _place(bounds(sign, pose), size, rng)
            paint = _paint(np.array(picture.getpixel(tuple(place))), rng)
            face, mask, corner = draw_sign(sign, variant, pose, paint)
            left, top = corner + place
            covered = _covered(mask, left, top, picture.size)
            changed = np.where(covered, len(areas), owner)
            seen = [(changed == i).sum() for i in range(len(areas))]
            if all(pixels >= VISIBLE * area for pixels, area in zip(seen, areas)):
                if rng.random() < 0.35:
                    _draw_pole(picture, place, bounds(sign, pose), owner, rng)
                picture.paste(face, (int(left), int(top)), mask)
                owner = changed
                areas.append(int(covered.sum()))
                box = bounds(sign, pose) + np.tile(place, 2)
                boxes.append(np.clip(box, 0, np.tile(size, 2)))
                labels.append(label)
                break
    return boxes, labels


def _pose(sign: Sign, side: int, rng: RANDOM) -> np.ndarray:
    """A slight turn, slant and stretch, and the size."""
    angle = float(np.clip(rng.normal(0, 0.09), -0.26, 0.26))
    shear = float(np.clip(rng.normal(0, 0.06), -0.15, 0.15))
    stretch = rng.uniform(0.88, 1.14)
    cos, sin = np.cos(angle), np.sin(angle)
    pose = np.array([[cos, -sin], [sin, cos]]) @ [[stretch, shear], [0, 1]]
    left, top, right, bottom = bounds(sign, pose)
    longer = side * np.exp(rng.uniform(np.log(SMALLEST), np.log(LARGEST)))
    return pose * longer / max(right - left, bottom - top)


def _place(box: np.ndarray, size: np.ndarray, rng: RANDOM) -> np.ndarray:
    """Where the sign's origin goes: up to a tenth of the sign may lie outside the picture."""
    overhang = 0.1 * (box[2:] - box[:2])
    low, high = -box[:2] - overhang, size - box[2:] + overhang
    place = low + (high - low) * rng.random(2)
    return np.clip(place.astype(int), 0, size - 1)


def _covered(mask: Image.Image, left: int, top: int, size: tuple[int, int]) -> np.ndarray:
    """Which pixels of the picture a pasted mask covers."""
    whole = Image.new("L", size)
    whole.paste(mask, (int(left), int(top)))
    return np.asarray(whole) > 127


def _paint(behind: np.ndarray, rng: RANDOM) -> Paint:
    """Any colours with which marks stand out from the face, and the sign from what is behind."""
    while True:
        face, rim = _colour(rng), _colour(rng)
        marks = np.stack([_colour(rng) for _ in range(3)])
        if rng.random() < 0.3:
            rim = marks[0]
        contrast = np.abs((marks - face) @ BRIGHTNESS).min()
        edge = np.abs((rim - behind) @ BRIGHTNESS)
        if contrast > 50 and edge > 35 and np.abs((rim - face) @ BRIGHTNESS) > 35:
            return Paint(rim, face, marks)


def _colour(rng: RANDOM) -> np.ndarray:
    """Any colour; three in ten are nearly black or white."""
    if rng.random() < 0.3:
        return np.abs(255 * float(rng.random() < 0.5) - rng.uniform(0, 40, 3))
    return rng.uniform(0, 255, 3)


def _background(size: tuple[int, int], rng: RANDOM) -> np.ndarray:
    """(height, width, 3) colours: shaded, blotched, striped, tiled or with a horizon."""
    width, height = size
    y, x = np.mgrid[0:height, 0:width] / min(size)
    surface = np.broadcast_to(rng.uniform(20, 235, 3), (height, width, 3)).copy()
    angle = rng.uniform(0, 2 * np.pi)
    along = (x - 0.5) * np.cos(angle) + (y - 0.5) * np.sin(angle)
    kind = rng.integers(5)
    if kind == 0:
        surface += along[..., None] * rng.normal(0, 80, 3)
    elif kind == 1:
        for cells in rng.integers(2, 24, (3, 2)):
            surface += _enlarged(rng.normal(0, rng.uniform(6, 24), (*cells, 3)), size)
    elif kind == 2:
        wave = np.sin(along * rng.uniform(15, 90) + rng.uniform(0, 6))
        surface += wave[..., None] * rng.normal(0, 22, 3)
    elif kind == 3:
        rows, columns = rng.integers(4, 14, 2)
        tiles = rng.normal(0, rng.uniform(4, 25), (rows, columns, 3))
        surface += tiles[(y * rows).astype(int) % rows, (x * columns).astype(int) % columns]
    else:
        ground = y > rng.uniform(0.4, 0.8) + 0.1 * np.sin(x * rng.uniform(1, 8))
        surface += y[..., None] * rng.normal(0, 40, 3)
        surface[ground] = rng.uniform(20, 235, 3)
    if rng.random() < 0.6:
        grain = rng.normal(0, rng.uniform(3, 16), (height // 2 + 1, width // 2 + 1, 1))
        surface += np.repeat(np.repeat(grain, 2, 0), 2, 1)[:height, :width]
    return surface


def _draw_clutter(picture: Image.Image, count: int, rng: RANDOM) -> None:
    """Ragged patches and bars behind the signs: things that are no signs."""
    draw = ImageDraw.Draw(picture)
    size, side = np.array(picture.size), min(picture.size)
    for _ in range(count):
        colour = tuple(int(value) for value in _colour(rng))
        if rng.random() < 0.5:
            corners = int(rng.integers(4, 9))
            angles = np.sort(rng.uniform(0, 2 * np.pi, corners))
            radius = side * rng.uniform(0.05, 0.3) * rng.uniform(0.4, 1, corners)
            centre = rng.uniform(0, 1, 2) * size
            points = centre + radius[:, None] * np.stack([np.cos(angles), np.sin(angles)], 1)
            draw.polygon([tuple(point) for point in points], colour)
        else:
            ends = rng.uniform(-0.2, 1.2, (2, 2)) * size
            draw.line([tuple(end) for end in ends], colour, int(side * rng.uniform(0.01, 0.08)))


def _draw_pole(
    picture: Image.Image, place: np.ndarray, box: np.ndarray, owner: np.ndarray, rng: RANDOM
) -> None:
    """A pole from the sign down to the picture's edge, behind the signs that are there already."""
    half = max(1, int((box[2] - box[0]) * rng.uniform(0.02, 0.06)))
    pole = Image.new("L", picture.size)
    x, y = int(place[0]), int(place[1])
    ImageDraw.Draw(pole).rectangle([x - half, y, x + half, picture.height], 255)
    free = (np.asarray(pole) > 0) & (owner < 0)
    colour = tuple(int(value) for value in _colour(rng))
    picture.paste(colour, (0, 0), Image.fromarray(free.astype(np.uint8) * 255))


def _draw_twigs(picture: Image.Image, rng: RANDOM) -> None:
    """Thin things in front of everything."""
    draw = ImageDraw.Draw(picture)
    size, side = np.array(picture.size), min(picture.size)
    colour = tuple(int(value) for value in _colour(rng))
    for _ in range(int(rng.integers(1, 4))):
        points = rng.uniform(0, 1, 2) * size + np.cumsum(rng.normal(0, 0.15 * side, (4, 2)), 0)
        width = max(1, int(side * rng.uniform(0.004, 0.018)))
        draw.line([tuple(point) for point in points], colour, width)


def _with_optics(picture: Image.Image, rng: RANDOM) -> Image.Image:
    """Light, focus and grain, in the order in which a camera adds them."""
    width, height = picture.size
    if rng.random() < 0.5:
        light = 1 + _enlarged(rng.normal(0, 0.15, (2, 2, 1)), picture.size)
        picture = _to_image(np.asarray(picture) * light)
    if rng.random() < 0.6:
        spread = min(rng.gamma(2, 0.0025), 0.012) * min(picture.size)
        picture = picture.filter(ImageFilter.GaussianBlur(spread))
    if rng.random() < 0.6:
        grain = rng.normal(0, rng.uniform(1, 14), (height, width, 1))
        picture = _to_image(np.asarray(picture) + grain)
    return picture


def _as_jpeg(picture: Image.Image, rng: RANDOM) -> Image.Image:
    buffer = io.BytesIO()
    picture.save(buffer, "JPEG", quality=int(rng.integers(40, 91)))
    return Image.open(buffer).convert("RGB")


def _enlarged(cells: np.ndarray, size: tuple[int, int]) -> np.ndarray:
    """A coarse grid (rows, columns, channels) spread smoothly over a picture."""
    planes = [
        Image.fromarray(cells[..., c].astype(np.float32)).resize(size, Image.BICUBIC)
        for c in range(cells.shape[2])
    ]
    return np.stack(planes, axis=2)


def _to_image(values: np.ndarray) -> Image.Image:
    return Image.fromarray(np.clip(np.round(values), 0, 255).astype(np.uint8))
