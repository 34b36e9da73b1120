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
# Compiled objects are kept by ccache where it is installed, so that a fresh
# clone on the same machine compiles only what changed (paths are taken
# relative to the clone, so any folder shares the cache).
launcher=()
if command -v ccache > /dev/null; then
  export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$PWD}" CCACHE_NOHASHDIR="${CCACHE_NOHASHDIR:-1}"
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
if [ -z "$sanitize" ]; then
  build=build
  cmake -S . -B "$build" -G Ninja -DSKERROW_WERROR=ON -DSKERROW_BENCHMARKS=ON "${launcher[@]}"
  cmake --build "$build" -j "$jobs"
  ctest --test-dir "$build" --output-on-failure -j "$jobs"
else
  build="build-${sanitize//,/-}"
  cmake -S . -B "$build" -G Ninja -DSKERROW_WERROR=ON -DCMAKE_BUILD_TYPE=Debug -DSKERROW_SANITIZE="$sanitize" \
    "${launcher[@]}"
  # Only the unit tests run under a sanitizer: only they are built.
  cmake --build "$build" -j "$jobs" --target skerrow_unit_tests
  export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
  export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
  export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
  ctest --test-dir "$build" --output-on-failure -j "$jobs" -L unit
fi
