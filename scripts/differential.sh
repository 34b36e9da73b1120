#!/usr/bin/env bash
# The long programmes of the differential tests: readings of a backup folder
# (plain walk, creation-date cache, reading ahead of time), warm walks of
# homes and backup folders against walks of the disk, and warm backup passes
# against passes that read everything (this one needs root: the watcher).
# 5,000 random steps each unless a count is given.
#
#   scripts/differential.sh [STEPS] [BUILD_DIR]
set -euo pipefail
STEPS=${1:-5000}
BUILD=${2:-build}
SKERROW_DIFFERENTIAL_STEPS=$STEPS "$BUILD/tests/skerrow_unit_tests" \
  --gtest_filter='DestinationReadAheadDifferentialTest.*'
SKERROW_WARM_WALK_STEPS=$STEPS "$BUILD/tests/skerrow_unit_tests" --gtest_filter='FSWarmWalkTest.*'
SKERROW_WARM_PASS_STEPS=$STEPS "$BUILD/tests/skerrow_integration_tests" --gtest_filter='WarmPassDifferentialTest.*'
