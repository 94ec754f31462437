#!/usr/bin/env bash
# Everything a change must pass before it is final: what ./test runs, and the checks that need no
# clean machine: format, include arrows, kept rules, the whole suite built by clang, the program under
# sanitizers, lint, thread sanitizer, OpenCL kernels on a simulated device, coverage.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

step() { printf '\n== %s\n' "$*"; }

step "Packages"
scripts/install_dependencies.sh check

step "Format"
scripts/format.sh --check

step "Include arrows and kept rules"
/usr/bin/python3 scripts/check_includes.py
/usr/bin/python3 scripts/check_kept.py

step "clang build and suite (build/clang)"
cmake --preset clang >/dev/null
cmake --build --preset clang
ctest --test-dir build/clang --output-on-failure --parallel "$jobs"

step "The program under sanitizers (build/asan)"
cmake --preset asan -DRAVU_BUILD_TOOLS=ON >/dev/null
cmake --build --preset asan --target ravu_tool_tests
ctest --test-dir build/asan --output-on-failure --parallel "$jobs" -R ravu_tool_tests
cmake --preset asan >/dev/null

step "Lint (clang-tidy)"
git ls-files {src,tools,opencl/src,fixpoint/src,python/src}/'*.cpp' |
  xargs -P "$jobs" -n 4 clang-tidy -p build/clang --quiet --warnings-as-errors='*' 2>/dev/null

step "Thread sanitizer (build/tsan)"
cmake --preset tsan -DRAVU_BUILD_TOOLS=OFF >/dev/null
cmake --build --preset tsan --target ravu_tests
build/tsan/tests/ravu_tests --gtest_brief=1

step "OpenCL kernels on a simulated device (oclgrind)"
cmake --preset dev >/dev/null
cmake --build --preset dev --target ravu_cldnn_tests
scripts/check_kernels.sh build/dev

step "Coverage of src (build/coverage)"
scripts/coverage.sh

step "./test"
./test
