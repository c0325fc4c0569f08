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
