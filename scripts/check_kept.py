#!/usr/bin/env python3
"""Checks that every odd rule marked `// Kept:` is pinned by a test.

docs/testing.md has a table with one row per marker: the file, the first words of the marker, the
test as Suite.Name (or several, separated by commas). A marker without a row, a row without a marker
and a row whose test does not exist are errors.

usage: check_kept.py [ROOT]    ROOT: the repository, by default the one of this script
"""

import re
import sys
from pathlib import Path

MARKED = ["src", "opencl", "fixpoint"]
TESTED = ["tests", "opencl/tests", "fixpoint/tests"]
SUFFIXES = {".h", ".cpp", ".cl"}
MARKER = re.compile(r"// Kept: (.+)")
ROW = re.compile(r"^\| `([^`]+)` \| (.+?) \| (.+?) \|$", re.MULTILINE)
TEST = re.compile(r"\bTEST(?:_[FP])?\(\s*(\w+),\s*(\w+)\s*\)")


def texts(root, folders):
    for folder in folders:
        for path in sorted((root / folder).rglob("*")):
            if path.suffix in SUFFIXES:
                yield path.relative_to(root).as_posix(), path.read_text(encoding="utf-8")


def is_test(path):
    return "tests" in Path(path).parts


def complaints(root):
    markers = [(path, words) for path, text in texts(root, MARKED) if not is_test(path)
               for words in MARKER.findall(text)]
    tests = {f"{suite}.{name}" for _, text in texts(root, TESTED)
             for suite, name in TEST.findall(text)}
    rows = ROW.findall((root / "docs/testing.md").read_text(encoding="utf-8"))
    for path, words in markers:
        matching = [row for row in rows if row[0] == path and words.startswith(row[1])]
        if len(matching) != 1:
            yield f"{path}: Kept: {words}: {len(matching)} rows in docs/testing.md, not one"
    for path, words, names in rows:
        if not any(path == file and marker.startswith(words) for file, marker in markers):
            yield f"docs/testing.md: {path} has no marker that begins with: {words}"
        for name in names.replace("`", "").split(", "):
            if name not in tests:
                yield f"docs/testing.md: there is no test {name}"


def main():
    root = Path(sys.argv[1] if len(sys.argv) > 1 else Path(__file__).parents[1])
    found = list(complaints(root))
    for line in found:
        print(line)
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()
