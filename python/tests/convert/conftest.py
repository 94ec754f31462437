"""Converting needs the compiled module and what `scripts/install_dependencies.sh test` installs.
Where that is expected, as in ctest, its absence is an error; else nothing is collected here."""

import importlib.util
import os

NEEDED = ("ravu._engine", "onnx", "onnxruntime")
missing = [name for name in NEEDED if importlib.util.find_spec(name) is None]
if missing:
    if os.environ.get("RAVU_NEEDS_CONVERTER"):
        raise RuntimeError(f"{missing} missing: run scripts/install_dependencies.sh test")
    collect_ignore_glob = ["test_*.py"]
