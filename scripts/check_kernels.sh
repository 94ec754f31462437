#!/usr/bin/env bash
# Runs the GPU provider's tests on oclgrind's simulated device, which reports every access out of
# bounds and every data race of a kernel: as the processor that it says it is, and as a GPU. The
# random convolutions and the longest rows would take minutes there, and threads of the host end the
# simulator.
# Usage: scripts/check_kernels.sh [BUILD_FOLDER]
set -euo pipefail
cd "$(dirname "$0")/.."
tests=${1:-build/dev}/opencl/tests/ravu_cldnn_tests
log=$(mktemp)
trap 'rm -f "$log"' EXIT
for device in "" gpu; do
  RAVU_TEST_DEVICE=$device oclgrind --data-races --log "$log" "$tests" --gtest_brief=1 \
    --gtest_filter='-KernelCache*:Transcript*:Convolution.*OnRandomShapes:*AtOnce*:*HoweverLong*'
  if [ -s "$log" ]; then
    head -40 "$log"
    exit 1
  fi
done
