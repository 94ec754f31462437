#!/usr/bin/env bash
# Runs the fuzz targets of build/asan for the given number of seconds (60 when none is given), which
# they share. All take models and start from one corpus, build/fuzz/corpus, where new inputs stay;
# a crash leaves its input in build/fuzz and fails the script.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
targets=(build/asan/tests/fuzz/*_fuzzer)
share=$(((seconds + ${#targets[@]} - 1) / ${#targets[@]}))
corpus=build/fuzz/corpus
mkdir -p "$corpus"
build/asan/tests/fuzz/write_seeds build/fuzz/seeds
for target in "${targets[@]}"; do
  name=$(basename "$target")
  log=build/fuzz/$name.log
  if "$target" -max_total_time="$share" -timeout=20 -rss_limit_mb=2048 -print_final_stats=1 \
      -close_fd_mask=3 -artifact_prefix=build/fuzz/ -dict=tests/fuzz/keys.dict \
      "$corpus" build/fuzz/seeds >"$log" 2>&1; then
    echo "$name: clean after $share s," \
      "$(sed -n 's/stat::number_of_executed_units: *//p' "$log") inputs"
  else
    tail -n 40 "$log"
    echo "$name: FAILED" >&2
    exit 1
  fi
done
