#!/usr/bin/env python3
"""The functions that the built provider exports, its export map and the interface's headers agree.

usage: symbols_test.py LIBRARY EXPORT_MAP HEADER...
"""

import re
import subprocess
import sys
from pathlib import Path


def main():
    library, export_map, *headers = sys.argv[1:]
    listing = subprocess.run(["nm", "-D", "--defined-only", library], check=True,
                             capture_output=True, text=True).stdout
    exported = {line.split()[-1] for line in listing.splitlines()}
    exported = {name for name in exported if not name.startswith("__")}  # of sanitizers
    mapped = set(re.findall(r"^\s*(\w+);", Path(export_map).read_text(), re.MULTILINE))
    text = "".join(Path(header).read_text() for header in headers)
    declared = set(re.findall(r"CLDNN_API[^;]*?((?:ravu_)?cldnn_\w+)\(", text))
    for name, functions in [("map", mapped), ("headers", declared)]:
        for function in sorted(exported ^ functions):
            print(f"{function}: in the library or in the {name}, not in both")
    # These two tell callers which version of the interface they have found.
    recognised = ("cldnn_proposal_type_id" in exported
                  and "cldnn_custom_gpu_primitive_type_id" not in exported)
    sys.exit(0 if exported == mapped == declared and recognised else 1)


if __name__ == "__main__":
    main()
