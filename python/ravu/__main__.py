"""The command `ravu` of an installed wheel: `convert` and `verify` are Python, and so is `diff` of a
model and its source; all else is the bundled program."""

from __future__ import annotations

import importlib
import os
import signal
import subprocess
import sys
from pathlib import Path


_MODULES = {
    "convert": "ravu.convert.__main__",
    "verify": "ravu.convert.check",
    "diff": "ravu.convert.diff",
}
_SOURCES = (".onnx", ".prototxt")
_EXTRA = "onnx onnxruntime pillow protobuf"
"""The packages of the extra `convert`, by their own names: this package is in no index."""


def main() -> int:
    """Run one subcommand; the exit status is the process's."""
    if _is_python(sys.argv[1:]):
        return _run_python(sys.argv[1], sys.argv[2:])
    program = Path(__file__).with_name("ravu.exe" if os.name == "nt" else "ravu")
    if not program.is_file():
        print("ravu: this package was built without the ravu program", file=sys.stderr)
        return 1
    if os.name == "nt":
        return subprocess.run([program, *sys.argv[1:]], check=False).returncode
    os.execv(program, ["ravu", *sys.argv[1:]])


def _is_python(arguments: list[str]) -> bool:
    if arguments[:1] == ["diff"]:
        return any(argument.endswith(_SOURCES) for argument in arguments[1:])
    return arguments[:1] in (["convert"], ["verify"])


def _run_python(name: str, arguments: list[str]) -> int:
    if hasattr(signal, "SIGPIPE"):
        signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # end quietly when nobody reads on
    try:
        return importlib.import_module(_MODULES[name]).main(arguments)
    except ImportError as error:
        print(
            f"ravu {name}: {error}; install what it needs: python3 -m pip install {_EXTRA}",
            file=sys.stderr,
        )
        return 1


if __name__ == "__main__":
    sys.exit(main())
