#!/usr/bin/env bash
# Builds vandrel and runs the main job: the tank-level example through `vandrel run`,
# printing its output table and drawing tank_level.png.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target vandrel_cli
build/apps/vandrel run examples/tank_level.lua --until 60 --every 2 --plot tank_level.png --quiet
echo "Plot written to $(pwd)/tank_level.png" >&2
