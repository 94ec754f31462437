#!/usr/bin/env bash
# Installs what building, testing and the demo need on Debian 12, and only what is missing: Debian's
# packages, and for the tests the Python packages that Debian lacks, those into build/venv.
# Usage: scripts/install_dependencies.sh build|test|check|bench
#   build  the library, the ravu program, the demo
#   test   the same and the test suite, fuzzing included
#   check  the same and the tools of scripts/check.sh
#   bench  what test needs, and what bench/peers compares with and draws with
set -euo pipefail

build=(
  g++ cmake ninja-build pkg-config  # compiler and build
  libopenblas-dev                   # matrix products
  libhwy-dev                        # vector code for every processor from one source
  libdnnl-dev                       # integer products of the fixed-point library
  libcli11-dev                      # command lines of the ravu program
  nlohmann-json3-dev                # its --json output
  libpng-dev libjpeg62-turbo-dev    # its pictures
  opencl-headers ocl-icd-opencl-dev # OpenCL, for the provider of the GPU run modes
)
test=(
  libgtest-dev libgmock-dev                 # unit tests
  clang libclang-rt-14-dev                  # fuzzing, and the second compiler
  binutils                                  # nm: the test of the exported symbols
  python3 python3-numpy python3-pytest      # the Python side and its tests
  python3-dev pybind11-dev                  # the Python package's compiled module
  python3-pil                               # pictures in those tests
  pocl-opencl-icd                           # an OpenCL device made of the processor
  python3-venv                              # a place for what requirements-test.txt names
)
check=(
  clang-format clang-tidy gcovr libomp-dev
  libclblast-dev  # the benchmark of the GPU provider compares with it
  oclgrind        # finds kernels that read out of bounds or race
  python3-torch   # the demo models once more, exported to ONNX and converted
  python3-torchvision  # the known networks of docs/converting.md
)
bench=(
  python3-matplotlib  # the plot of docs/performance.md
  python3-torch       # one of the engines that the comparison times
  util-linux          # taskset: every program on the same cores
)

case "${1:-build}" in
  build) wanted=("${build[@]}") ;;
  test) wanted=("${build[@]}" "${test[@]}") ;;
  check) wanted=("${build[@]}" "${test[@]}" "${check[@]}") ;;
  bench) wanted=("${build[@]}" "${test[@]}" "${bench[@]}") ;;
  *) echo "usage: $0 build|test|check|bench" >&2; exit 2 ;;
esac

install_packages() {
  local missing=() package state
  for package in "${wanted[@]}"; do
    state=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
    [ "$state" = "install ok installed" ] || missing+=("$package")
  done
  if [ ${#missing[@]} -eq 0 ]; then
    echo "Packages: all ${#wanted[@]} are installed."
    return
  fi
  echo "Packages: installing ${missing[*]}"
  local as_root=()
  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  "${as_root[@]}" apt-get update -qq
  # Behind sudo, which forgets the caller's environment.
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    -o DPkg::Lock::Timeout=600 "${missing[@]}" >/dev/null
}

# The environment sees Debian's Python packages too. A copy of the list says what it holds.
install_python_packages() {
  local list venv
  cd "$(dirname "$0")/.."
  list=python/requirements-test.txt
  venv=build/venv
  if cmp -s "$list" "$venv/installed.txt"; then
    echo "Python packages: as $list says."
    return
  fi
  echo "Python packages: installing $list into $venv"
  /usr/bin/python3 -m venv --clear --system-site-packages "$venv"
  "$venv/bin/python3" -m pip install --quiet --disable-pip-version-check -r "$list"
  cp "$list" "$venv/installed.txt"
}

install_packages
if [ "${1:-build}" != build ]; then install_python_packages; fi
