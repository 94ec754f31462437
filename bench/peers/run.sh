#!/usr/bin/env bash
# Compares the engine with others and renews the figures of docs/performance.md: builds, installs
# the other engines, writes the networks' files (6 GB), measures what was not measured yet (about 40
# minutes in all, on a machine that does nothing else), writes tables and plot.
# Usage: bench/peers/run.sh [--fresh] [OPTION...]
#   --fresh   forget earlier figures: after a change of the engine
#   OPTION    of measure.py: --only NETWORK,... --batch N,... --threads N,... --seconds S
set -euo pipefail
cd "$(dirname "$0")/../.."
here=bench/peers
folder=build/peers
venv=build/bench_venv

scripts/install_dependencies.sh bench
if ! cmp -s $here/requirements.txt $venv/installed.txt; then
  echo "Python packages: installing $here/requirements.txt into $venv"
  /usr/bin/python3 -m venv --clear $venv
  # One by one: a package that cannot be had leaves an empty row, with the reason in it. The next
  # call tries again.
  all=yes
  while read -r package; do
    $venv/bin/python3 -m pip install --quiet --disable-pip-version-check "$package" ||
      { echo "Without $package" >&2; all=no; }
  done < <(grep -v '^#' $here/requirements.txt)
  [ $all = no ] || cp $here/requirements.txt $venv/installed.txt
fi

cmake --preset release -DRAVU_BUILD_BENCH=ON -DRAVU_BUILD_PYTHON=ON >/dev/null
cmake --build build/release --target ravu_python ravu_program ravu_bench_machine >/dev/null

PYTHONPATH=build/release/python $venv/bin/python3 $here/prepare.py $folder
if [ "${1:-}" = --fresh ]; then
  shift
  rm -f $folder/results.jsonl
fi
RAVU_COMMIT=$(git log -1 --format=%h -- src)
git diff --quiet HEAD -- src || RAVU_COMMIT+=" with changes"
export RAVU_COMMIT
# What was measured goes into the document also when time is up before the end.
status=0
/usr/bin/python3 $here/measure.py $folder "$@" || status=$?
/usr/bin/python3 $here/report.py $folder/results.jsonl docs/performance.md docs/performance.svg
exit $status
