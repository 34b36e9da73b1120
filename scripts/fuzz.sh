#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each one.
#
#   scripts/fuzz.sh              replays the stored corpus, then fuzzes each target for 30 s
#   scripts/fuzz.sh 600          fuzzes each target for 600 s
#
# New inputs go to a scratch corpus under build-fuzz/; the stored corpus in
# tests/fuzz/corpus is only read.  A crash leaves its input in build-fuzz/.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-30}"

scripts/install-deps.sh --fuzz
launcher=()
if command -v ccache > /dev/null; then  # see scripts/test.sh
  export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$PWD}" CCACHE_NOHASHDIR="${CCACHE_NOHASHDIR:-1}"
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DSKERROW_FUZZ=ON -DSKERROW_TESTS=OFF "${launcher[@]}" >/dev/null
cmake --build build-fuzz -j "$(nproc)" --target fuzz_parse_file_name fuzz_property_list fuzz_fanotify_records fuzz_vessa_state

for target in parse_file_name property_list fanotify_records vessa_state; do
  scratch="build-fuzz/corpus/$target"
  mkdir -p "$scratch"
  echo "== fuzz_$target: $seconds s"
  (cd build-fuzz && ./tests/fuzz/fuzz_$target -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 \
      -print_final_stats=1 "../$scratch" "../tests/fuzz/corpus/$target")
done
