#!/usr/bin/python3
"""Write held-out scenes as pictures, and truth.json with the signs that are in each.

Scene number i is always the same. Needs Pillow.
"""

from __future__ import annotations

import argparse
from pathlib import Path

from series import write_scenes
from scenes import EXAMPLE_SERIES, HELD_OUT_SERIES, draw_scene


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("folder", type=Path, help="where to write the pictures; made if missing")
    parser.add_argument("--count", type=int, default=500, help="pictures to write")
    parser.add_argument(
        "--examples",
        action="store_true",
        help="write the series that images/ is the beginning of, every other picture as JPEG",
    )
    options = parser.parse_args()
    series = EXAMPLE_SERIES if options.examples else HELD_OUT_SERIES
    scenes = [draw_scene(series, index) for index in range(options.count)]
    write_scenes(scenes, options.folder, every_other_as_jpeg=options.examples)


if __name__ == "__main__":
    main()
