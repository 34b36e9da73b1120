#!/usr/bin/env bash
# The long programme of the differential test of backup-folder readings
# (plain walk, creation-date cache, reading ahead of time): 5,000 random
# steps unless a count is given.
#
#   scripts/differential.sh [STEPS] [BUILD_DIR]
set -euo pipefail
STEPS=${1:-5000}
BUILD=${2:-build}
SKERROW_DIFFERENTIAL_STEPS=$STEPS "$BUILD/tests/skerrow_unit_tests" \
  --gtest_filter='DestinationReadAheadDifferentialTest.*'
