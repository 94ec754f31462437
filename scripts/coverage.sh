#!/usr/bin/env bash
# Builds with coverage, runs the unit tests and prints the line coverage of src/.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset coverage -DRAVU_BUILD_TOOLS=OFF >/dev/null
cmake --build --preset coverage --target ravu_tests
find build/coverage -name '*.gcda' -delete
build/coverage/tests/ravu_tests --gtest_brief=1
# In the build folder, where gcov leaves files when it fails.
cd build/coverage
gcovr --root ../.. --filter '../../src/' --print-summary --exclude-unreachable-branches . |
  tail -n 45
