"""The command `ravu verify`: does a converted model still compute what its card says?

Exit status: 0 it does, 1 the model cannot be read or has no card, 2 misused, 4 it does not.
"""

from __future__ import annotations

import argparse
import json
import sys
from collections.abc import Sequence
from pathlib import Path

from ..model_file import ModelFileError
from ..network import EngineError
from ..outline import read_outline
from .card import repeat_check
from .verify import TOLERANCE_WITH_NORMALISATION

UNREADABLE, DIFFERENT = 1, 4


def main(arguments: Sequence[str] | None = None) -> int:
    """Check one model and print the result. Returns the exit status."""
    parser = argparse.ArgumentParser(
        prog="ravu verify",
        description="Run a converted model on the picture of its card, and compare the outputs.",
    )
    parser.add_argument("model", type=Path, metavar="MODEL", help="a model that ravu convert wrote")
    parser.add_argument("--json", action="store_true", help="print one JSON value instead of text")
    options = parser.parse_args(arguments)
    try:
        card = read_outline(options.model).card
        check = None if card is None else card.get("check")
        if check is None:
            raise ModelFileError("has no card with a check; ravu convert writes one")
        error = repeat_check(options.model, check)
    except (ModelFileError, EngineError, OSError, KeyError, TypeError, ValueError) as problem:
        print(f"ravu verify: {options.model}: {problem}", file=sys.stderr)
        return UNREADABLE
    same = error <= TOLERANCE_WITH_NORMALISATION
    if options.json:
        print(json.dumps({"model": str(options.model), "error": error, "same": same}))
    else:
        verdict = "computes what its card says" if same else "does not compute what its card says"
        print(f"{options.model}: {verdict}; worst {error:.1e} of an output's range")
    return 0 if same else DIFFERENT


if __name__ == "__main__":
    sys.exit(main())
