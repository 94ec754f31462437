"""The command `ravu` of an installed wheel: `ravu convert` and `ravu verify` are Python, all else is
the bundled program."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path


def main() -> int:
    """Run one subcommand; the exit status is the process's."""
    if sys.argv[1:2] == ["convert"]:
        from .convert.__main__ import main as convert

        return convert(sys.argv[2:])
    if sys.argv[1:2] == ["verify"]:
        from .convert.check import main as verify

        return verify(sys.argv[2:])
    program = Path(__file__).with_name("ravu.exe" if os.name == "nt" else "ravu")
    if not program.is_file():
        print("ravu: this package was built without the ravu program", file=sys.stderr)
        return 1
    if os.name == "nt":
        return subprocess.run([program, *sys.argv[1:]], check=False).returncode
    os.execv(program, ["ravu", *sys.argv[1:]])


if __name__ == "__main__":
    sys.exit(main())
