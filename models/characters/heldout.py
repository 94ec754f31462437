#!/usr/bin/python3
"""Write held-out pictures as files whose names carry their true labels, such as 0017_K.png.

Picture number i is always the same. Needs Pillow and the font packages of fonts.txt.
"""

from __future__ import annotations

import argparse
from pathlib import Path

from dataset import EXAMPLE_SERIES, HELD_OUT_SERIES, held_out_samples, write_pictures


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("folder", type=Path, help="where to write the pictures; made if missing")
    parser.add_argument("--count", type=int, default=2000, help="pictures to write")
    parser.add_argument(
        "--examples",
        action="store_true",
        help="write the series that images/ is the beginning of, every other picture as JPEG",
    )
    options = parser.parse_args()
    series = EXAMPLE_SERIES if options.examples else HELD_OUT_SERIES
    samples = held_out_samples(options.count, series)
    write_pictures(samples, options.folder, every_other_as_jpeg=options.examples)


if __name__ == "__main__":
    main()
