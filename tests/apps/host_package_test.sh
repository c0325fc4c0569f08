#!/usr/bin/env bash
# Installs vandrel into a scratch prefix, builds examples/host against the installed
# CMake package, and runs it on an example scheme.
set -euo pipefail
build_dir=$1
source_dir=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

cmake --install "$build_dir" --prefix "$scratch/prefix" >/dev/null
cmake -S "$source_dir/examples/host" -B "$scratch/build" -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/build" >/dev/null
# pkg-config sees the package too.
PKG_CONFIG_PATH="$scratch/prefix/lib/pkgconfig:$(find "$scratch/prefix" -name pkgconfig -type d | tr '\n' ':')" \
    pkg-config --exists vandrel
out=$(LD_LIBRARY_PATH="$scratch/prefix/lib:$(find "$scratch/prefix" -name 'libvandrel.so*' -printf '%h\n' | head -1)" \
    "$scratch/build/vandrel_host" "$source_dir/examples/tank_level.lua" level)
echo "$out"
# Ten lines, one per second, and the level has risen from its start at 0.2 m by t = 10 s.
[ "$(echo "$out" | wc -l)" -eq 10 ]
echo "$out" | awk 'END { exit !($2 > 0.3) }'

# The wire bridge example: two schemes joined by a bit stream through the host.
cmake -S "$source_dir/examples/wire_bridge" -B "$scratch/build-bridge" -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/build-bridge" >/dev/null
bridge=$(LD_LIBRARY_PATH="$scratch/prefix/lib:$(find "$scratch/prefix" -name 'libvandrel.so*' -printf '%h\n' | head -1)" \
    "$scratch/build-bridge/wire_bridge" "$source_dir/examples/wire_bridge/plant.lua" \
    "$source_dir/examples/wire_bridge/monitor.lua" 10)
echo "$bridge"
# Ten lines of: time, fahrenheit, hot, ok, bits. The body cools from 90 C (194 F) towards
# 20 C: 20 + 70 e^-0.1t, so it is hot (above 60 C) up to t = 5.6 s and about 45.7 C
# (114.3 F) at t = 10 s. Each message is 65 bits: a double and a bool.
[ "$(echo "$bridge" | wc -l)" -eq 10 ]
echo "$bridge" | awk '
  { if ($5 != 65 || $3 == $4) bad = 1 }
  $1 < 5.5 && $3 != 1 { bad = 1 }
  $1 > 5.7 && $3 != 0 { bad = 1 }
  NR == 1 && ($2 < 180 || $2 > 185) { bad = 1 }
  END { if (!(NR == 10 && $2 > 113 && $2 < 116)) bad = 1; exit bad }'
