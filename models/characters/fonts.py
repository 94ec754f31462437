"""The fonts that the characters are printed in, and which of them are held out from training.

Fonts come from the Debian packages in fonts.txt. The split is a seeded draw of whole design groups
(lines of that file), so a held-out font has no relative among those trained on.
"""

from __future__ import annotations

import random
import re
import subprocess
from collections import defaultdict
from dataclasses import dataclass
from functools import lru_cache
from pathlib import Path

from PIL import Image, ImageDraw, ImageFont

LABELS = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"
FONT_LIST = Path(__file__).with_name("fonts.txt")
GLYPH_PIXELS = 96
SPLIT_SEED = 20
HELD_OUT_SHARE = 0.2


@dataclass(frozen=True)
class Family:
    """A font family: its name, the package it comes from, and one file per style."""

    name: str
    package: str
    files: tuple[str, ...]


Groups = list[list[Family]]


def load_groups() -> tuple[Groups, Groups]:
    """The design groups to train on and those held out. Exits when packages are missing."""
    groups, excluded = _read_list()
    missing = [package for group in groups for package in group if _package_files(package) is None]
    if missing:
        raise SystemExit(f"These font packages are missing:\n  apt-get install {' '.join(missing)}")
    order = sorted(group[0] for group in groups)
    count = round(HELD_OUT_SHARE * len(order))
    held_out = set(random.Random(SPLIT_SEED).sample(order, count))
    training, held = [], []
    for group in groups:
        families = [family for package in group for family in _families(package, excluded)]
        (held if group[0] in held_out else training).append(families)
    return training, held


@lru_cache(maxsize=None)
def glyph(path: str, character: str) -> Image.Image:
    """The character's ink, cut to its box, as coverage 0 to 255; about GLYPH_PIXELS high."""
    font = ImageFont.truetype(path, GLYPH_PIXELS)
    left, top, right, bottom = font.getbbox(character)
    image = Image.new("L", (max(1, right - left) + 2, max(1, bottom - top) + 2))
    ImageDraw.Draw(image).text((1 - left, 1 - top), character, font=font, fill=255)
    return image.crop(image.getbbox() or (0, 0, 1, 1))


def _read_list() -> tuple[list[list[str]], re.Pattern[str]]:
    lines = [line.strip() for line in FONT_LIST.read_text().splitlines()]
    patterns = [line[1:] for line in lines if line.startswith("!")]
    groups = [line.split() for line in lines if line.startswith("fonts-")]
    return groups, re.compile("|".join(patterns))


@lru_cache(maxsize=None)
def _package_files(package: str) -> list[str] | None:
    listing = subprocess.run(["dpkg", "-L", package], capture_output=True, text=True, check=False)
    if listing.returncode:
        return None
    return sorted(f for f in listing.stdout.splitlines() if f.lower().endswith((".ttf", ".otf")))


def _families(package: str, excluded: re.Pattern[str]) -> list[Family]:
    """The package's families that have all 36 characters, each style once."""
    styles: dict[str, dict[str, str]] = defaultdict(dict)
    for path in _package_files(package):
        family, style = ImageFont.truetype(path, 16).getname()
        if not excluded.search(family or "") and _has_all_characters(path):
            styles[family].setdefault(style, path)
    return [Family(name, package, tuple(files.values())) for name, files in sorted(styles.items())]


def _has_all_characters(path: str) -> bool:
    """No two characters are drawn alike: a character without a glyph shows the font's filler."""
    font = ImageFont.truetype(path, 24)
    drawn = {bytes(font.getmask(character)) for character in LABELS + "\uffff"}
    return len(drawn) == len(LABELS) + 1
