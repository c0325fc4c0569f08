#!/usr/bin/env bash
# Builds the libFuzzer targets (tests/fuzz/) with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer in build-fuzz/, and runs each for SECONDS (default 60).
# Fails on any crash, sanitizer report, leak or input that runs longer than TIMEOUT
# seconds (default 10); the input that did it is kept in build-fuzz/artifacts/.
#
#   ./scripts/fuzz.sh [SECONDS]        # e.g. ./scripts/fuzz.sh 3600 for a longer run
#   build-fuzz/tests/fuzz/SchemeFileFuzz build-fuzz/artifacts/SchemeFileFuzz-crash-...   # replay one input
#
# The corpus grows in build-fuzz/corpus/<target>/ and is reused by the next run; it
# starts from the examples and tests/fuzz/seeds/.
# Under CI (CI set) every run starts from the seeds alone, as on a fresh clone. FUZZ_SEED
# fixes libFuzzer's random seed; runs still differ, since the targets touch temporary files
# and order some containers by address.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
timeout=${TIMEOUT:-10}
build=build-fuzz
targets=(SchemeFileFuzz SchemeGenFuzz LuaLoaderFuzz)

command -v clang++ >/dev/null || { echo "fuzz.sh: clang++ not found (scripts/setup.sh installs it)" >&2; exit 1; }

flags=(-DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS=-O1 -DVANDREL_FUZZ=ON
       -DVANDREL_BUILD_TESTS=OFF -DVANDREL_BUILD_APPS=OFF -DVANDREL_BUILD_BENCH=OFF)
[ -n "${CI:-}" ] && flags+=(-DVANDREL_WERROR=ON)
command -v ccache >/dev/null && flags+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S . -B "$build" "${flags[@]}" >/dev/null
cmake --build "$build" -j "$(nproc)" --target "${targets[@]}"

# Seeds: every example (the speed-control one also with its overrides) and the
# hand-written seeds.
seeds="$build/seeds"
rm -rf "$seeds" && mkdir -p "$seeds" "$build/artifacts"
cp examples/*.lua tests/fuzz/seeds/*.lua "$seeds/"
cat examples/speed_control.lua examples/speed_control.overrides.lua > "$seeds/speed_control_with_overrides.lua"

export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
seed_args=()
[ -n "${CI:-}" ] && rm -rf "$build/corpus"
[ -n "${FUZZ_SEED:-}" ] && seed_args=(-seed="$FUZZ_SEED")
for target in "${targets[@]}"; do
  corpus="$build/corpus/$target"
  mkdir -p "$corpus"
  # Text targets start from the seeds; the generator reads its input as choices, for
  # which the seeds and the dictionary mean nothing, and wants long inputs from the start.
  if [ "$target" = SchemeGenFuzz ]; then
    inputs=("$corpus" -len_control=0 -max_len=1024)
  else
    inputs=("$corpus" "$seeds" -dict=tests/fuzz/scheme.dict)
  fi
  echo "== $target: ${seconds}s" >&2
  "$build/tests/fuzz/$target" "${inputs[@]}" "${seed_args[@]}" -max_total_time="$seconds" -timeout="$timeout" \
    -rss_limit_mb=4096 -detect_leaks=1 -print_final_stats=1 \
    -artifact_prefix="$build/artifacts/$target-"
done
echo "fuzz.sh: no crash, leak or hang in ${seconds}s per target" >&2
