"""Pictures of one printed character each, made to look like photographs.

Everything is drawn from one random generator, so a seed and an index always give the same picture.
Lengths are fractions of the picture's shorter side, angles radians, colours 0 to 255.
"""

from __future__ import annotations

import io
from dataclasses import dataclass

import numpy as np
from fonts import LABELS, Groups, glyph
from PIL import Image, ImageChops, ImageDraw, ImageFilter

RANDOM = np.random.Generator
BRIGHTNESS = np.array([0.3, 0.59, 0.11])


@dataclass(frozen=True)
class Sample:
    """A picture, the class index of its character and the font family that it was printed in."""

    image: Image.Image
    label: int
    family: str


def draw_sample(groups: Groups, seed: int, index: int) -> Sample:
    """Picture number `index` of the series `seed`: RGB, each side 64 to 128 pixels.

    All classes, all design groups, all families of a group and all styles of a family are equally
    likely.
    """
    rng = np.random.default_rng([seed, index])
    label = int(rng.integers(len(LABELS)))
    path, family = _draw_font(groups, rng)
    image = _photograph(path, LABELS[label], _picture_size(rng), rng)
    return Sample(image, label, family)


def _draw_font(groups: Groups, rng: RANDOM) -> tuple[str, str]:
    group = groups[rng.integers(len(groups))]
    family = group[rng.integers(len(group))]
    return family.files[rng.integers(len(family.files))], family.name


def _picture_size(rng: RANDOM) -> tuple[int, int]:
    """Width and height; three in ten pictures are not quite square."""
    side = int(rng.integers(64, 113))
    other = round(side * rng.uniform(1.0, 1.14)) if rng.random() < 0.3 else side
    return (side, other) if rng.random() < 0.5 else (other, side)


def _photograph(path: str, character: str, size: tuple[int, int], rng: RANDOM) -> Image.Image:
    paper, ink_colour = _surface_and_ink(size, rng)
    pose = _Pose(rng)
    ink = pose.place(glyph(path, character), size)
    if rng.random() < 0.3:
        ink = _with_neighbours(ink, path, character, size, pose, rng)
    if rng.random() < 0.2:
        paper = _with_shadow(paper, ink, rng)
    picture = Image.composite(Image.new("RGB", size, ink_colour), paper, ink)
    if rng.random() < 0.2:
        picture = _with_occlusion(picture, rng)
    picture = _with_optics(picture, rng)
    return _as_jpeg(picture, rng) if rng.random() < 0.4 else picture


class _Pose:
    """How the print lies before the camera: one pose for a character and its neighbours."""

    def __init__(self, rng: RANDOM):
        angle = float(np.clip(rng.normal(0, 0.11), -0.3, 0.3))
        shear = float(np.clip(rng.normal(0, 0.1), -0.25, 0.25))
        self.height = rng.uniform(0.5, 0.82)
        self.stretch = rng.uniform(0.88, 1.14)
        self.offset = rng.uniform(-0.06, 0.06, 2)
        self.perspective = rng.normal(0, 0.05, 2)
        cos, sin = np.cos(angle), np.sin(angle)
        # Picture to print: the inverse of print to picture, as the image library wants it.
        self.linear = np.linalg.inv(np.array([[cos, -sin], [sin, cos]]) @ [[1, shear], [0, 1]])

    def place(self, mask: Image.Image, size: tuple[int, int], along: float = 0.0) -> Image.Image:
        """The mask in the picture, moved `along` the line of print by that many mask heights."""
        side = min(size)
        # Wide characters are limited by their width.
        scale = min(self.height * side / mask.height, 0.86 * side / (mask.width * self.stretch))
        to_mask = np.diag([1 / (scale * self.stretch), 1 / scale]) @ self.linear
        centre = np.array(size) / 2 + self.offset * side
        start = np.array([mask.width / 2 - along * mask.height, mask.height / 2])
        g, h = self.perspective / side
        # Homogeneous picture to mask: a slight tilt about the centre, then the linear part.
        to_centre = np.array([[1, 0, -centre[0]], [0, 1, -centre[1]], [0, 0, 1]])
        tilt = np.array([[1, 0, 0], [0, 1, 0], [g, h, 1]])
        into = np.eye(3)
        into[:2, :2], into[:2, 2] = to_mask, start
        matrix = into @ tilt @ to_centre
        matrix /= matrix[2, 2]
        # Shrinking by more than two aliases; halving first avoids it.
        while scale < 0.5:
            mask = mask.resize((max(1, mask.width // 2), max(1, mask.height // 2)), Image.BOX)
            matrix[:2] /= 2
            scale *= 2
        coefficients = matrix.ravel()[:8]
        return mask.transform(size, Image.PERSPECTIVE, tuple(coefficients), Image.BILINEAR)


def _with_neighbours(
    ink: Image.Image,
    path: str,
    character: str,
    size: tuple[int, int],
    pose: _Pose,
    rng: RANDOM,
) -> Image.Image:
    """Parts of the characters beside this one, as when a word was cut up."""
    mask = glyph(path, character)
    for side in (-1, 1):
        if rng.random() < 0.6:
            other = glyph(path, LABELS[rng.integers(len(LABELS))])
            gap = rng.uniform(0.12, 0.3)
            distance = (mask.width + other.width) / 2 / mask.height + gap
            ink = ImageChops.lighter(ink, pose.place(other, size, side * distance))
    return ink


def _surface_and_ink(size: tuple[int, int], rng: RANDOM) -> tuple[Image.Image, tuple[int, ...]]:
    """A surface and a colour that stands out from all of it."""
    wanted = rng.uniform(35, 80)
    while True:
        ink, base = _colour(rng), _colour(rng)
        if abs((base - ink) @ BRIGHTNESS) > wanted:
            surface = _surface(base, size, rng)
            if np.abs((surface - ink) @ BRIGHTNESS).min() > wanted:
                return _to_image(surface), tuple(int(value) for value in ink)


def _colour(rng: RANDOM) -> np.ndarray:
    """Any colour; three in five are nearly grey, as most print and paper is."""
    colour = rng.uniform(0, 255, 3)
    return colour.mean() + 0.2 * (colour - colour.mean()) if rng.random() < 0.6 else colour


def _surface(base: np.ndarray, size: tuple[int, int], rng: RANDOM) -> np.ndarray:
    """(height, width, 3) colours: plain, shaded, blotched, striped or two-coloured."""
    width, height = size
    surface = np.broadcast_to(base, (height, width, 3)).copy()
    y, x = np.mgrid[0:height, 0:width] / min(size)
    angle = rng.uniform(0, 2 * np.pi)
    along = (x - 0.5) * np.cos(angle) + (y - 0.5) * np.sin(angle)
    kind = rng.integers(5)
    if kind == 1:
        surface += along[..., None] * rng.normal(0, 60, 3)
    elif kind == 2:
        cells = rng.normal(0, rng.uniform(8, 28), (*rng.integers(3, 12, 2), 3))
        surface += _enlarged(cells, size)
    elif kind == 3:
        wave = np.sin(along * rng.uniform(10, 70) + rng.uniform(0, 6))
        surface += wave[..., None] * rng.normal(0, 16, 3)
    elif kind == 4:
        surface[along > rng.uniform(-0.5, 0.5)] += rng.normal(0, 30, 3)
    if rng.random() < 0.5:
        surface += rng.normal(0, rng.uniform(2, 14), (height, width, 1))
    return np.clip(surface, 0, 255)


def _with_shadow(paper: Image.Image, ink: Image.Image, rng: RANDOM) -> Image.Image:
    offset = tuple(int(value) for value in rng.integers(-4, 5, 2))
    shadow = Image.new("L", ink.size)
    shadow.paste(ink, offset)
    shadow = shadow.filter(ImageFilter.GaussianBlur(rng.uniform(0.5, 2.5)))
    strength = rng.uniform(0.2, 0.5)
    return Image.composite(
        Image.new("RGB", paper.size), paper, shadow.point(lambda value: int(value * strength))
    )


def _with_occlusion(picture: Image.Image, rng: RANDOM) -> Image.Image:
    """A scratch, a wire or a spot in front of the print."""
    picture = picture.copy()
    draw = ImageDraw.Draw(picture)
    colour = tuple(int(value) for value in rng.integers(0, 256, 3))
    side = min(picture.size)
    points = rng.uniform(0, 1, (2, 2)) * picture.size
    if rng.random() < 0.6:
        draw.line([tuple(p) for p in points], colour, max(1, int(side * rng.uniform(0.01, 0.05))))
    else:
        radius = side * rng.uniform(0.04, 0.12, 2)
        draw.ellipse([tuple(points[0] - radius), tuple(points[0] + radius)], colour)
    return picture


def _with_optics(picture: Image.Image, rng: RANDOM) -> Image.Image:
    """Light, focus, movement and grain, in the order in which a camera adds them."""
    width, height = picture.size
    side = min(picture.size)
    if rng.random() < 0.5:
        light = 1 + _enlarged(rng.normal(0, 0.16, (2, 2, 1)), picture.size)
        picture = _to_image(np.asarray(picture) * light)
    if rng.random() < 0.7:
        picture = picture.filter(ImageFilter.GaussianBlur(min(rng.gamma(2, 0.011), 0.045) * side))
    if rng.random() < 0.12:
        picture = _moved(picture, int(rng.integers(2, 6)), int(rng.integers(2)))
    if rng.random() < 0.7:
        grain = rng.normal(0, rng.uniform(1, 18), (height, width, 3 if rng.random() < 0.5 else 1))
        picture = _to_image(np.asarray(picture) + grain)
    return picture


def _moved(picture: Image.Image, length: int, axis: int) -> Image.Image:
    """The mean of `length` copies, each one pixel further along the axis (0 down, 1 right)."""
    pixels = np.asarray(picture, np.float32)
    before = [(length, 0) if i == axis else (0, 0) for i in range(3)]
    padded = np.pad(pixels, before, mode="edge")
    size = pixels.shape[axis]
    copies = [np.take(padded, np.arange(i, i + size), axis) for i in range(1, length + 1)]
    return _to_image(np.mean(copies, axis=0))


def _as_jpeg(picture: Image.Image, rng: RANDOM) -> Image.Image:
    buffer = io.BytesIO()
    picture.save(buffer, "JPEG", quality=int(rng.integers(35, 91)))
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
