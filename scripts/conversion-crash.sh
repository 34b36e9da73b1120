#!/usr/bin/env bash
# The full crash-safety programme of the conversion of older backups: the
# engine killed at 200 random moments of conversions and at every rename of
# the driver, and the disk pulled out at 50 random moments, each run ending
# converted without losing a file (tests/integration/ConversionCrashTest.cpp;
# CI runs a few rounds of each).  Needs root and loop devices.
#
#   scripts/conversion-crash.sh [BUILD_DIR] [KILLS] [YANKS]
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build}"
export SKERROW_CONVERSION_KILL_ROUNDS="${2:-200}"
export SKERROW_CONVERSION_YANK_ROUNDS="${3:-50}"
cmake --build "$build" --target skerrow_integration_tests
"$build/tests/skerrow_integration_tests" --gtest_filter='ConversionCrash.*'
