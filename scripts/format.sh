#!/usr/bin/env bash
# Formats every C and C++ file of the repository; with --check only says which ones differ.
set -euo pipefail
cd "$(dirname "$0")/.."
mode=(-i)
[ "${1:-}" != "--check" ] || mode=(--dry-run --Werror)
git ls-files '*.h' '*.c' '*.cpp' '*.hpp' | xargs clang-format "${mode[@]}"
