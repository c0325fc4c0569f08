#!/usr/bin/env bash
# Installs, from Debian packages, whatever vandrel needs to build, test and run that is
# missing on this machine. Does nothing when everything is already there.
set -euo pipefail

packages=(
  g++ cmake make pkg-config       # toolchain
  liblua5.1-0-dev libboost-dev    # library dependencies
  libsundials-dev                 # stiff solver (CVODE)
  libgtest-dev libbenchmark-dev   # tests and benchmarks
  libcli11-dev gnuplot-nox        # command-line host and its plots
  graphviz                        # `vandrel graph` drawings
  python3                         # benchmark summary (bench/summary.py)
  clang libclang-rt-14-dev        # fuzz targets: libFuzzer and the sanitizers (scripts/fuzz.sh)
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
