"""The ten signs: what each looks like, and how one is drawn.

A sign is told by its outline and its mark alone: any sign comes in any colours. All shapes are
polygons in a plane where x runs right, y down, and the sign reaches about from -1 to 1; so a pose
is a 2 x 2 matrix on their corners, and the bounding box of a sign is that of its posed outline.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
from PIL import Image, ImageDraw

# Corners, one per row.
Polygon = np.ndarray

# How many times larger a sign is drawn than it is pasted: its edges become smooth.
OVERSAMPLING = 3


@dataclass(frozen=True)
class Sign:
    """One class of signs.

    outline:  its border
    marks:    its variants, mirror images of one another: the polygons on the face of each
    face:     the size of the face inside the rim, as a fraction of the outline
    rim_mark: whether the marks have the rim's colour instead of one of their own
    lamps:    whether each mark has a colour of its own, instead of one for all
    """

    outline: Polygon
    marks: tuple[tuple[Polygon, ...], ...]
    face: float = 0.84
    rim_mark: bool = False
    lamps: bool = False


@dataclass(frozen=True)
class Paint:
    """Colours (0 to 255) of a sign's parts; `marks` has three, of which most signs use one."""

    rim: np.ndarray
    face: np.ndarray
    marks: np.ndarray


def draw_sign(
    sign: Sign, variant: int, pose: np.ndarray, paint: Paint
) -> tuple[Image.Image, Image.Image, np.ndarray]:
    """The sign in a pose (2 x 2, sign to pixels) as a picture, its mask (0 to 255) and its corner.

    The corner (left, top) is where the picture lies when the sign's origin is at (0, 0).
    """
    outline = sign.outline @ pose.T
    low = np.floor(outline.min(axis=0)).astype(int)
    width, height = np.ceil(outline.max(axis=0)).astype(int) - low
    large = (int(width) * OVERSAMPLING, int(height) * OVERSAMPLING)
    picture = Image.new("RGB", large, _rgb(paint.rim))
    mask = Image.new("L", large)

    def corners(polygon: Polygon) -> list[tuple[float, float]]:
        return [tuple(point) for point in (polygon @ pose.T - low) * OVERSAMPLING]

    ImageDraw.Draw(mask).polygon(corners(sign.outline), 255)
    draw = ImageDraw.Draw(picture)
    centre = sign.outline.mean(axis=0)
    draw.polygon(corners(centre + (sign.outline - centre) * sign.face), _rgb(paint.face))
    for i, polygon in enumerate(sign.marks[variant]):
        colour = paint.rim if sign.rim_mark else paint.marks[i if sign.lamps else 0]
        draw.polygon(corners(polygon), _rgb(colour))
    size = (int(width), int(height))
    return picture.resize(size, Image.BOX), mask.resize(size, Image.BOX), low


def bounds(sign: Sign, pose: np.ndarray) -> np.ndarray:
    """Left, top, right and bottom of the posed sign around its origin."""
    outline = sign.outline @ pose.T
    return np.concatenate([outline.min(axis=0), outline.max(axis=0)])


def _regular(corners: int, turn: float, radius: float = 1.0) -> Polygon:
    """A regular polygon with its first corner at the angle `turn`, in full turns from the right."""
    angles = 2 * np.pi * (turn + np.arange(corners) / corners)
    return radius * np.stack([np.cos(angles), np.sin(angles)], axis=1)


def _rectangle(left: float, top: float, right: float, bottom: float) -> Polygon:
    return np.array([[left, top], [right, top], [right, bottom], [left, bottom]])


def _disc(x: float, y: float, radius: float) -> Polygon:
    return np.array([x, y]) + _regular(24, 0, radius)


def _turned(polygon: Polygon, turn: float) -> Polygon:
    cos, sin = np.cos(2 * np.pi * turn), np.sin(2 * np.pi * turn)
    return polygon @ np.array([[cos, sin], [-sin, cos]])


def _mirrored(polygon: Polygon) -> Polygon:
    return polygon * np.array([-1, 1])


def _rgb(colour: np.ndarray) -> tuple[int, ...]:
    return tuple(int(value) for value in colour)


# Pointing right.
_ARROW = np.array(
    [[-0.7, -0.16], [0.1, -0.16], [0.1, -0.42], [0.7, 0], [0.1, 0.42], [0.1, 0.16], [-0.7, 0.16]]
)
_SLASH = _turned(_rectangle(-0.75, -0.13, 0.75, 0.13), 1 / 8)

SIGNS: dict[str, Sign] = {
    "stop": Sign(_regular(8, 1 / 16), ((_rectangle(-0.62, -0.18, 0.62, 0.18),),)),
    "yield": Sign(_regular(3, 1 / 4), ((),), face=0.6),
    "warning": Sign(
        _regular(3, 3 / 4), ((_rectangle(-0.09, -0.45, 0.09, 0.1), _disc(0, 0.26, 0.11)),)
    ),
    "priority": Sign(_regular(4, 0), ((_regular(4, 0, 0.5),),)),
    "forbidden": Sign(
        _regular(32, 0), ((_SLASH,), (_mirrored(_SLASH),)), face=0.74, rim_mark=True
    ),
    "ahead": Sign(_regular(32, 0), ((_turned(_ARROW, 3 / 4),),), face=0.9),
    "hospital": Sign(
        _rectangle(-0.85, -0.85, 0.85, 0.85),
        ((_rectangle(-0.5, -0.16, 0.5, 0.16), _rectangle(-0.16, -0.5, 0.16, 0.5)),),
    ),
    "exit": Sign(_rectangle(-1, -0.5, 1, 0.5), ((_ARROW,), (_mirrored(_ARROW),)), face=0.88),
    "lights": Sign(
        _rectangle(-0.46, -1, 0.46, 1),
        ((_disc(0, -0.6, 0.26), _disc(0, 0, 0.26), _disc(0, 0.6, 0.26)),),
        face=0.9,
        lamps=True,
    ),
    "shelter": Sign(
        np.array([[0, -0.95], [0.95, -0.2], [0.72, 0.85], [-0.72, 0.85], [-0.95, -0.2]]),
        ((_rectangle(-0.24, 0.0, 0.24, 0.62),),),
    ),
}

# As in the model file: the first label is for no sign at all.
LABELS = ("background", *SIGNS)
