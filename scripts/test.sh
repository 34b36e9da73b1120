#!/usr/bin/env bash
# Installs what is missing, builds Skerrow and runs every test.
#
#   scripts/test.sh                        the test suite (build/)
#   scripts/test.sh --sanitize=address,undefined
#   scripts/test.sh --sanitize=thread      the unit tests under a sanitizer (build-<name>/)
set -euo pipefail
cd "$(dirname "$0")/.."

sanitize=""
for arg in "$@"; do
  case "$arg" in
    --sanitize=*) sanitize="${arg#--sanitize=}" ;;
    *) echo "unknown option: $arg" >&2; exit 2 ;;
  esac
done

scripts/install-deps.sh

jobs=$(nproc)
if [ -z "$sanitize" ]; then
  build=build
  cmake -S . -B "$build" -G Ninja -DSKERROW_WERROR=ON -DSKERROW_BENCHMARKS=ON
  cmake --build "$build" -j "$jobs"
  ctest --test-dir "$build" --output-on-failure -j "$jobs"
else
  build="build-${sanitize//,/-}"
  cmake -S . -B "$build" -G Ninja -DSKERROW_WERROR=ON -DCMAKE_BUILD_TYPE=Debug -DSKERROW_SANITIZE="$sanitize"
  cmake --build "$build" -j "$jobs"
  export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
  export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
  export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
  ctest --test-dir "$build" --output-on-failure -j "$jobs" -L unit
fi
