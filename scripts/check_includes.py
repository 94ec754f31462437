#!/usr/bin/env python3
"""Checks who includes whom: api -> model -> layers -> graph -> kernels, never backwards.

Each folder of src/ may include itself and those after it; so the graph never names a layer, layers
never read records, and kernels never see a Blob. The public headers are for src/api alone. The
engine and the projects opencl/ and fixpoint/ meet only in interfaces/. Examples see what an outside
program sees: the public headers. Tests, tools and benches may include all of it.

usage: check_includes.py [ROOT]    ROOT: the repository, by default the one of this script
"""

import re
import sys
from pathlib import Path

FOLDERS = ["api", "model", "layers", "graph", "kernels"]
INTERFACES = {"cldnn": {"layers", "graph"}, "fixpoint": {"layers", "graph"}}
SUFFIXES = {".h", ".hpp", ".c", ".cpp"}
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)


def sources(folder):
    return sorted(path for path in folder.rglob("*") if path.suffix in SUFFIXES)


def includes(path):
    return INCLUDE.findall(path.read_text(encoding="utf-8"))


def engine_rule(folder, included):
    """What is wrong with a file of src/FOLDER that includes this, or None."""
    target = included.split("/")[0] if "/" in included else ""
    if target in FOLDERS:
        if FOLDERS.index(target) < FOLDERS.index(folder):
            return f"{folder} must not include {target}: that points backwards"
    elif target == "ravu":
        if folder != "api":
            return "only api includes the public headers"
    elif target in INTERFACES:
        if folder not in INTERFACES[target]:
            return f"{folder} must not include the {target} interface"
    else:
        return "includes in quotes name a folder of src or interfaces"
    return None


def outside_rule(project, included):
    """What is wrong with a file of a separate project that includes this, or None."""
    target = included.split("/")[0]
    own = any((base / included).exists() for base in [project, project / "src", project / "tests"])
    if own or target in INTERFACES or "/" not in included:
        return None
    if target == "ravu" or target in FOLDERS:
        return f"{project.name} and the engine meet only in interfaces/"
    return None


def example_rule(included):
    return None if included.startswith("ravu/") else "examples include the public headers alone"


def complaints(root):
    for path in sources(root / "src"):
        parts = path.relative_to(root / "src").parts
        for included in includes(path):
            rule = ("sources stand in one of the folders " + " ".join(FOLDERS)
                    if parts[0] not in FOLDERS else engine_rule(parts[0], included))
            if rule:
                yield path, included, rule
    for project in [root / "opencl", root / "fixpoint"]:
        for path in sources(project):
            for included in includes(path):
                rule = outside_rule(project, included)
                if rule:
                    yield path, included, rule
    for path in sources(root / "examples"):
        for included in includes(path):
            rule = example_rule(included)
            if rule:
                yield path, included, rule


def main():
    root = Path(sys.argv[1] if len(sys.argv) > 1 else Path(__file__).parents[1])
    found = list(complaints(root))
    for path, included, rule in found:
        print(f'{path.relative_to(root)}: #include "{included}": {rule}')
    if not (root / "src").is_dir():
        sys.exit(f"{root} has no src folder")
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()
