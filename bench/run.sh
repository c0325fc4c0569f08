#!/usr/bin/env bash
# Builds vandrel in Release and runs the benchmark suite, then prints one summary table.
# Usage: bench/run.sh [extra google-benchmark flags, e.g. --benchmark_repetitions=3]
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DVANDREL_BUILD_TESTS=OFF >/dev/null
cmake --build build-release -j "$(nproc)" --target vandrel_bench
json=build-release/bench-results.json
build-release/bench/vandrel_bench --benchmark_out="$json" --benchmark_out_format=json "$@" >&2
python3 bench/summary.py "$json"
