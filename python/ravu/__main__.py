"""The command `ravu` of an installed wheel: `convert` and `verify` are Python, all else is the
bundled program."""

from __future__ import annotations

import importlib
import os
import subprocess
import sys
from pathlib import Path


def main() -> int:
    """Run one subcommand; the exit status is the process's."""
    if sys.argv[1:2] in (["convert"], ["verify"]):
        return _run_python(sys.argv[1], sys.argv[2:])
    program = Path(__file__).with_name("ravu.exe" if os.name == "nt" else "ravu")
    if not program.is_file():
        print("ravu: this package was built without the ravu program", file=sys.stderr)
        return 1
    if os.name == "nt":
        return subprocess.run([program, *sys.argv[1:]], check=False).returncode
    os.execv(program, ["ravu", *sys.argv[1:]])


def _run_python(name: str, arguments: list[str]) -> int:
    module = "ravu.convert.__main__" if name == "convert" else "ravu.convert.check"
    try:
        command = importlib.import_module(module).main
    except ImportError as error:
        print(
            f"ravu {name}: {error}; install what it needs: python3 -m pip install 'ravu[convert]'",
            file=sys.stderr,
        )
        return 1
    return command(arguments)


if __name__ == "__main__":
    sys.exit(main())
