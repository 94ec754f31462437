#!/usr/bin/env bash
# Runs every fuzz target of build/fuzz for the given number of seconds (60 when none is given).
# New inputs stay in build/fuzz/corpus; a crash leaves its input in build/fuzz and fails the script.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
for target in build/fuzz/tests/fuzz/*_fuzzer; do
  name=$(basename "$target")
  corpus=build/fuzz/corpus/$name
  mkdir -p "$corpus"
  seeds=()
  [ ! -d "tests/fuzz/seeds/$name" ] || seeds=("tests/fuzz/seeds/$name")
  dictionary=()
  [ ! -f tests/fuzz/keys.dict ] || dictionary=(-dict=tests/fuzz/keys.dict)
  log=build/fuzz/$name.log
  if "$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 -print_final_stats=1 -close_fd_mask=3 \
      -artifact_prefix=build/fuzz/ "${dictionary[@]}" "$corpus" "${seeds[@]}" >"$log" 2>&1; then
    echo "$name: clean after $seconds s," \
      "$(sed -n 's/stat::number_of_executed_units: *//p' "$log") inputs"
  else
    tail -n 40 "$log"
    echo "$name: FAILED" >&2
    exit 1
  fi
done
