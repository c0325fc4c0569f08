#!/usr/bin/env bash
# Builds vandrel and runs the whole test suite. With --sanitize, builds in a separate
# tree with AddressSanitizer and UndefinedBehaviorSanitizer and fails on any report.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build
flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
if [ "${1:-}" = "--sanitize" ]; then
  build=build-sanitize
  flags=(-DCMAKE_BUILD_TYPE=Debug -DVANDREL_SANITIZE=ON -DVANDREL_BUILD_BENCH=OFF)
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
fi
[ -n "${CI:-}" ] && flags+=(-DVANDREL_WERROR=ON)

cmake -S . -B "$build" "${flags[@]}" >/dev/null
cmake --build "$build" -j "$(nproc)"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"
